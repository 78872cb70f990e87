// The real vardell-server, spoken to over its sockets.
#include "server/BootClock.h"
#include "tests/server/ServerProgramFixture.h"

namespace vardell::server {
namespace {

using ServerProgramTest = ServerProgramFixture;

TEST_F(ServerProgramTest, AnswersALaunchItsMinutesAndTheTwoQueries) {
  Limit(30);
  StartServer();
  const Client agent(port_);
  for (const char byte : StartFrame()) agent.Send(QByteArray(1, byte));
  agent.Send(FetchFrame());
  const auto limits = agent.ReadDictionary();
  ASSERT_TRUE(limits);
  EXPECT_EQ(limits->size(), 16);
  EXPECT_EQ(limits->value(kEnabled), true);
  EXPECT_EQ(CreditIn(limits), 30);
  agent.Send(Report(29) + FetchFrame().repeated(300));
  for (int i = 0; i < 300; ++i) ASSERT_EQ(CreditIn(agent.ReadDictionary()), 29) << i;
  EXPECT_FALSE(agent.HasSomethingToRead()) << "starts and reports are not answered";

  agent.Send(FrameOf(RequestKind::SingleQuery, QStringList{user_}));
  const auto all = agent.ReadDictionary();
  ASSERT_TRUE(all);
  EXPECT_EQ(all->value(game_).toMap().value(kCredit).toInt(), 29);
  agent.Send(FrameOf(RequestKind::DictionaryQuery, {user_, game_}));
  const QString today = QDate::currentDate().toString(QStringLiteral("d-M-yyyy"));
  EXPECT_EQ(agent.ReadDictionary(), QVariantMap({{today, qlonglong{1}}}));
  agent.Send(FrameOf(RequestKind::FetchLimits, {QStringLiteral("somebody"), game_}));
  EXPECT_EQ(agent.ReadDictionary().value_or(QVariantMap()).value(kEnabled), false);
}

// --- What no agent sends.

TEST_F(ServerProgramTest, ClosesAConnectionThatMakesNoSense) {
  Limit(30);
  StartServer();
  const Client bystander(port_);
  const Client slow(port_);
  slow.Send(FetchFrame().chopped(3));
  const QByteArray names = FetchFrame().mid(kRequestHeaderBytes);
  const struct {
    const char* behaviour;
    QByteArray bytes;
    const char* logged;
  } rows[] = {
      {"a frame of nothing", QByteArray::fromHex("00000000"), "malformed frame"},
      {"a frame above the cap", QByteArray::fromHex("00004001"), "malformed frame"},
      {"the kind that is not used", QByteArray::fromHex("000000090200000000"), "kind 2"},
      {"a kind that does not exist", QByteArray::fromHex("00000009ff00000000"), "kind 255"},
      {"a kill request", FrameOf(RequestKind::KillProcess, QByteArray::fromHex("0100000031")),
       "kill request"},
      {"a payload that goes on", FrameOf(RequestKind::ApplicationStart, names + 'x'), "kind 3"},
      {"a report without its record", FrameOf(RequestKind::CreditReport, names), "kind 6"},
  };
  for (const auto& row : rows) {
    const Client agent(port_);
    agent.Send(row.bytes);
    EXPECT_TRUE(agent.IsClosedByServer()) << row.behaviour;
    EXPECT_TRUE(server_.WaitForOutput(QLatin1String(row.logged))) << row.behaviour;
    EXPECT_EQ(Fetch(bystander), 30) << row.behaviour;
  }
  for (int i = 0; i < 300; ++i) {
    const Client agent(port_);
    agent.Send(QByteArray::fromHex("00000000"));
    ASSERT_TRUE(agent.IsClosedByServer());
  }
  EXPECT_LT(server_.Output().count(QStringLiteral("malformed frame")), 150) << "fills the log";
  slow.Send(FetchFrame().last(3));
  EXPECT_EQ(CreditIn(slow.ReadDictionary()), 30) << "half a frame holds nobody up";
}

TEST_F(ServerProgramTest, AClientThatNeverReadsIsClosed) {
  Limit(30);
  StartServer();
  const Client greedy(port_);
  const Client agent(port_);
  const QByteArray many = FetchFrame().repeated(100);
  EXPECT_TRUE(WaitUntil([&] {
    bool isOpen = true;
    for (int i = 0; i < 100 && isOpen; ++i) isOpen = greedy.SendSome(many);
    return !isOpen || server_.Output().contains(QStringLiteral("does not read"));
  }));
  EXPECT_TRUE(server_.WaitForOutput(QStringLiteral("does not read its replies")));
  EXPECT_EQ(Fetch(agent), 30);
}

// --- Its end, and its start.

TEST_F(ServerProgramTest, GivesTheTopUpThatIsDueWhenItStarts) {
  if (!IsClockBelieved(IsClockSet(), TimeSinceBoot())) {
    GTEST_SKIP() << "within ten minutes after boot, and nobody has set the clock";
  }
  const double hourAgo =
      static_cast<double>(QDateTime::currentSecsSinceEpoch() - 3600 - 978'307'200);
  const QVariantMap keys{{kCredit, 5},
                         {QStringLiteral("AutoUpdateValue"), 60},
                         {QStringLiteral("NextAutoUpdate"), hourAgo}};
  ASSERT_EQ(OpenHousehold()->ChangeLimits({}, user_, game_, keys, 0).status, AdminStatus::Ok);
  StartServer();
  EXPECT_EQ(Fetch(Client(port_)), 60);
}

TEST_F(ServerProgramTest, EndsCleanlyAndSoonWhenAsked) {
  for (const int signal : {SIGTERM, SIGINT}) {
    StartServer();
    const Client agent(port_);
    server_.Signal(signal);
    EXPECT_EQ(server_.Wait(std::chrono::seconds(5)), 0) << signal;
    EXPECT_TRUE(agent.IsClosedByServer());
  }
}

TEST_F(ServerProgramTest, KillOnlyNeedsNoStore) {
  const std::vector<std::string> command{VARDELL_BIN_DIR "/vardell-server", "--kill-only",
                                         "--store", "/no/such/store"};
  server_ = Program(command, {.output = Path("log")});
  EXPECT_TRUE(server_.WaitForOutput(QStringLiteral("127.0.0.1:49308")));
  EXPECT_TRUE(Client(49308).IsConnected());
  EXPECT_FALSE(server_.Output().contains(QStringLiteral("answering agents")));
  ExpectRefused(command, 1, "127.0.0.1:49308");
  ExpectRefused(command, 1, "Stop the program");
}

TEST_F(ServerProgramTest, SaysInOneLineWhyItDoesNotStart) {
  auto misused = Command();
  misused.push_back("--frobnicate");
  ExpectRefused(misused, 2, "--frobnicate");
  ExpectRefused(Command("127.0.0.1:0", "no/such/store.sqlite"), 1, "make its folder");
  ExpectRefused(Command("192.0.2.1:0"), 1, "--listen");
  StartServer();
  ExpectRefused(Command(), 1, "in use by another program");
  ExpectRefused(Command("127.0.0.1:" + std::to_string(port_), "other.sqlite"), 1, "in use");
}

}  // namespace
}  // namespace vardell::server
