// The real vardell-server, spoken to over its sockets.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <QRegularExpression>
#include <QTemporaryDir>
#include <list>
#include <memory>

#include "Common Sources/Caps.h"
#include "server/Household.h"
#include "server/Store.h"
#include "tests/server/AgentSocket.h"
#include "tests/support/Program.h"

namespace vardell::server {
namespace {

using test::AgentSocket;
using test::FrameOf;
using test::NamesFrame;
using test::ReportFrame;
using vardell::test::Program;

const QString kCredit = QStringLiteral("Credit");
const QString kEnabled = QStringLiteral("Enabled");

class ServerProgramTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(folder_.isValid());
    const passwd* me = getpwuid(getuid());
    ASSERT_NE(me, nullptr);
    user_ = QString::fromUtf8(me->pw_name);
  }
  void TearDown() override {
    if (HasFailure()) fprintf(stderr, "--- Server\n%s\n", qPrintable(server_.Output()));
  }

  std::string Path(const char* name) const {
    return folder_.filePath(QLatin1String(name)).toStdString();
  }
  std::vector<std::string> Command(const std::string& listen = "127.0.0.1:0") const {
    return {VARDELL_BIN_DIR "/vardell-server",
            "--listen",
            listen,
            "--store",
            Path("store.sqlite"),
            "--control",
            Path("control"),
            "--no-publish"};
  }

  void Limit(std::int32_t credit) {
    Clocks clocks{[] { return std::chrono::milliseconds(0); }, QStringLiteral("test"),
                  [] { return QDateTime::currentDateTime(); }, std::chrono::milliseconds(1000)};
    Household household(Store::Open(QString::fromStdString(Path("store.sqlite"))), clocks);
    const auto result = household.ChangeLimits({}, user_, game_, {{kCredit, credit}}, 0);
    ASSERT_EQ(result.status, AdminStatus::Ok);
  }

  // `second`: the length of an enforcement second in milliseconds.
  void StartServer(const char* second = "1000") {
    unlink(Path("log").c_str());
    server_ = Program(Command(),
                      {.environment = {{"VARDELL_TEST_SECOND_MS", second}}, .output = Path("log")});
    const QString ready = QStringLiteral("answering agents at 127.0.0.1:");
    ASSERT_TRUE(vardell::test::WaitUntil(
        [&] { return server_.Output().contains(ready) || !server_.IsRunning(); }));
    ASSERT_TRUE(server_.Output().contains(ready));
    const auto found = QRegularExpression(QStringLiteral("answering agents at 127.0.0.1:(\\d+)"))
                           .match(server_.Output());
    port_ = found.captured(1).toUShort();
    ASSERT_NE(port_, 0);
  }

  QByteArray StartFrame() const { return NamesFrame(RequestKind::ApplicationStart, user_, game_); }
  QByteArray FetchFrame() const { return NamesFrame(RequestKind::FetchLimits, user_, game_); }
  QByteArray Report(std::int32_t credit) const { return ReportFrame(user_, game_, credit); }
  // -1 where no answer comes.
  static int CreditIn(const std::optional<QVariantMap>& answer) {
    return answer ? answer->value(kCredit, -1).toInt() : -1;
  }
  int Fetch(const AgentSocket& agent) const {
    agent.Send(FetchFrame());
    return CreditIn(agent.ReadDictionary());
  }

  const QString game_ = QStringLiteral("org.example.game");
  QString user_;
  QTemporaryDir folder_;
  Program server_;
  std::uint16_t port_ = 0;
};

TEST_F(ServerProgramTest, AnswersALaunchAndItsMinutes) {
  Limit(30);
  StartServer();
  const AgentSocket agent(port_);
  agent.Send(StartFrame() + FetchFrame());
  const auto limits = agent.ReadDictionary();
  ASSERT_TRUE(limits);
  EXPECT_EQ(limits->size(), 16);
  EXPECT_EQ(limits->value(kEnabled), true);
  EXPECT_EQ(CreditIn(limits), 30);
  agent.Send(Report(29) + FetchFrame());
  EXPECT_EQ(CreditIn(agent.ReadDictionary()), 29);
  EXPECT_FALSE(agent.HasSomethingToRead()) << "starts and reports are not answered";
}

TEST_F(ServerProgramTest, TakesFramesInAnyPieces) {
  Limit(30);
  StartServer();
  const AgentSocket agent(port_);
  for (const char byte : FetchFrame()) agent.Send(QByteArray(1, byte));
  EXPECT_EQ(CreditIn(agent.ReadDictionary()), 30);
  for (int i = 0; i < 300; ++i) agent.Send(FetchFrame());
  for (int i = 0; i < 300; ++i) ASSERT_EQ(CreditIn(agent.ReadDictionary()), 30) << i;
}

TEST_F(ServerProgramTest, AnswersTheTwoQueries) {
  Limit(30);
  StartServer();
  const AgentSocket agent(port_);
  agent.Send(StartFrame() + FetchFrame() + Report(29));
  ASSERT_TRUE(agent.ReadDictionary());
  QByteArray name;
  AppendStringToData(name, user_);
  agent.Send(FrameOf(RequestKind::SingleQuery, name));
  const auto all = agent.ReadDictionary();
  ASSERT_TRUE(all);
  EXPECT_EQ(all->value(game_).toMap().value(kCredit).toInt(), 29);
  agent.Send(NamesFrame(RequestKind::DictionaryQuery, user_, game_));
  const auto usage = agent.ReadDictionary();
  ASSERT_TRUE(usage);
  const QDate today = QDate::currentDate();
  const QString key =
      QStringLiteral("%1-%2-%3").arg(today.day()).arg(today.month()).arg(today.year());
  EXPECT_EQ(*usage, QVariantMap({{key, qlonglong{1}}}));
}

TEST_F(ServerProgramTest, TellsNobodyAboutAnotherUser) {
  Limit(30);
  StartServer();
  const AgentSocket agent(port_);
  agent.Send(NamesFrame(RequestKind::FetchLimits, QStringLiteral("somebody"), game_));
  const auto answer = agent.ReadDictionary();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->value(kEnabled), false);
}

// --- What no agent sends.

struct Broken {
  const char* behaviour;
  QByteArray bytes;
  const char* logged;
};

TEST_F(ServerProgramTest, ClosesAConnectionThatMakesNoSense) {
  Limit(30);
  StartServer();
  const AgentSocket bystander(port_);
  const QByteArray names = FetchFrame().mid(kRequestHeaderBytes);
  const Broken rows[] = {
      {"a frame shorter than its header", QByteArray::fromHex("00000008"), "malformed frame"},
      {"a frame of nothing", QByteArray::fromHex("00000000"), "malformed frame"},
      {"a frame of 2 GiB", QByteArray::fromHex("7fffffff"), "malformed frame"},
      {"a frame above the cap", QByteArray::fromHex("00004001"), "malformed frame"},
      {"the kind that is not used", QByteArray::fromHex("000000090200000000"), "kind 2"},
      {"a kind that does not exist", QByteArray::fromHex("00000009ff00000000"), "kind 255"},
      {"a kill request", FrameOf(RequestKind::KillProcess, QByteArray::fromHex("0100000031")),
       "kill request"},
      {"no payload", FrameOf(RequestKind::FetchLimits, {}), "kind 1"},
      {"a payload that ends early", FrameOf(RequestKind::FetchLimits, names.chopped(1)), "kind 1"},
      {"a payload that goes on", FrameOf(RequestKind::ApplicationStart, names + 'x'), "kind 3"},
      {"a name that is not UTF-8",
       FrameOf(RequestKind::SingleQuery, QByteArray::fromHex("02000000c328")), "kind 4"},
      {"a name without end",
       FrameOf(RequestKind::DictionaryQuery, QByteArray::fromHex("ffffffff41")), "kind 5"},
      {"a report without its record", FrameOf(RequestKind::CreditReport, names), "kind 6"},
  };
  for (const Broken& row : rows) {
    const AgentSocket agent(port_);
    agent.Send(row.bytes);
    EXPECT_TRUE(agent.IsClosedByServer()) << row.behaviour;
    EXPECT_TRUE(server_.WaitForOutput(QLatin1String(row.logged))) << row.behaviour;
    EXPECT_EQ(Fetch(bystander), 30) << row.behaviour;
  }
}

TEST_F(ServerProgramTest, ManyBrokenConnectionsDoNotFillTheLog) {
  Limit(30);
  StartServer();
  for (int i = 0; i < 300; ++i) {
    const AgentSocket agent(port_);
    agent.Send(QByteArray::fromHex("00000000"));
    ASSERT_TRUE(agent.IsClosedByServer());
  }
  EXPECT_LT(server_.Output().count(QStringLiteral("malformed frame")), 150);
}

TEST_F(ServerProgramTest, AHalfFrameHoldsNobodyUp) {
  Limit(30);
  StartServer();
  const AgentSocket slow(port_);
  slow.Send(FetchFrame().chopped(3));
  {
    const AgentSocket gone(port_);
    gone.Send(FetchFrame().first(2));
  }
  const AgentSocket agent(port_);
  EXPECT_EQ(Fetch(agent), 30);
  slow.Send(FetchFrame().last(3));
  EXPECT_EQ(CreditIn(slow.ReadDictionary()), 30);
}

TEST_F(ServerProgramTest, AClientThatNeverReadsIsClosed) {
  Limit(30);
  StartServer();
  const AgentSocket greedy(port_);
  const AgentSocket agent(port_);
  const QByteArray many = FetchFrame().repeated(100);
  EXPECT_TRUE(vardell::test::WaitUntil([&] {
    bool isOpen = true;
    for (int i = 0; i < 100 && isOpen; ++i) isOpen = greedy.SendSome(many);
    return !isOpen || server_.Output().contains(QStringLiteral("does not read"));
  }));
  EXPECT_TRUE(server_.WaitForOutput(QStringLiteral("does not read its replies")));
  EXPECT_EQ(Fetch(agent), 30);
}

TEST_F(ServerProgramTest, OfTooManyConnectionsTheOldestGoes) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GT(limit.rlim_cur, kMaxConnectionsPerAddress + 100);
  Limit(30);
  StartServer();
  const AgentSocket oldest(port_);
  std::list<AgentSocket> others;
  for (std::size_t i = 0; i < kMaxConnectionsPerAddress; ++i) {
    ASSERT_TRUE(others.emplace_back(port_).IsConnected());
  }
  EXPECT_EQ(Fetch(others.back()), 30);
  EXPECT_EQ(Fetch(others.front()), 30);
  EXPECT_TRUE(oldest.IsClosedByServer());
}

// --- Its end, and its start.

TEST_F(ServerProgramTest, LosesNothingThatItAcknowledgedWhenKilled) {
  Limit(100000);
  int acknowledged = 100000;
  for (int round = 0; round < 5; ++round) {
    StartServer("1");  // a minute is 60 ms
    const AgentSocket agent(port_);
    agent.Send(StartFrame());
    const int before = Fetch(agent);
    ASSERT_GT(before, 0);
    EXPECT_LE(before, acknowledged) << "round " << round;
    acknowledged = before;
    for (int minutes = 0; acknowledged > before - 3 - round && minutes < 20000; ++minutes) {
      agent.Send(Report(acknowledged - 1) + FetchFrame());
      const int credit = CreditIn(agent.ReadDictionary());
      ASSERT_GT(credit, 0);
      acknowledged = credit;
    }
    EXPECT_LT(acknowledged, before) << "round " << round;
    // Killed in the midst of more of them.
    agent.Send((Report(acknowledged - 1) + FetchFrame()).repeated(20));
    server_.End(SIGKILL);
  }
  // Opening it also compares each credit with its ledger.
  const auto store = Store::Open(QString::fromStdString(Path("store.sqlite")));
  const StoreContents contents = store->Load(QString());
  ASSERT_EQ(contents.credit.size(), 1u);
  EXPECT_LE(contents.credit[0].minutes, acknowledged);
  EXPECT_GE(contents.credit[0].minutes, acknowledged - 5);
}

TEST_F(ServerProgramTest, EndsCleanlyWhenAsked) {
  for (const int signal : {SIGTERM, SIGINT}) {
    StartServer();
    const AgentSocket agent(port_);
    server_.Signal(signal);
    EXPECT_EQ(server_.Wait(), 0) << signal;
    EXPECT_TRUE(agent.IsClosedByServer());
  }
}

TEST_F(ServerProgramTest, KillOnlyNeedsNoStore) {
  server_ = Program({VARDELL_BIN_DIR "/vardell-server", "--kill-only", "--store", "/no/such/store"},
                    {.environment = {}, .output = Path("log")});
  EXPECT_TRUE(server_.WaitForOutput(QStringLiteral("127.0.0.1:49308")));
  const AgentSocket kills(49308);
  EXPECT_TRUE(kills.IsConnected());
  EXPECT_FALSE(server_.Output().contains(QStringLiteral("answering agents")));
}

void ExpectOneLine(const vardell::test::Finished& finished, int status, const char* says) {
  EXPECT_EQ(finished.status, status) << says;
  EXPECT_TRUE(finished.output.contains(QLatin1String(says))) << qPrintable(finished.output);
  EXPECT_EQ(finished.output.count(QLatin1Char('\n')), 1) << qPrintable(finished.output);
  EXPECT_TRUE(finished.output.startsWith(QStringLiteral("vardell-server: ")));
}

TEST_F(ServerProgramTest, SaysInOneLineWhyItDoesNotStart) {
  auto misused = Command();
  misused.push_back("--frobnicate");
  ExpectOneLine(vardell::test::Run(misused, {}), 2, "--frobnicate");

  auto noFolder = Command();
  noFolder[4] = Path("no/such/store.sqlite");
  ExpectOneLine(vardell::test::Run(noFolder, {}), 1, "make its folder");

  ExpectOneLine(vardell::test::Run(Command("192.0.2.1:0"), {}), 1, "--listen");
  ExpectOneLine(vardell::test::Run(Command("nowhere:0"), {}), 1, "--listen");

  StartServer();
  ExpectOneLine(vardell::test::Run(Command(), {}), 1, "in use by another program");
  auto other = Command("127.0.0.1:" + std::to_string(port_));
  other[4] = Path("other.sqlite");
  ExpectOneLine(vardell::test::Run(other, {}), 1, "in use");
  server_.End(SIGTERM);

  QFile damaged(QString::fromStdString(Path("other.sqlite")));
  ASSERT_TRUE(damaged.open(QIODevice::WriteOnly));
  damaged.write(QByteArray(5000, 'x'));
  damaged.close();
  ExpectOneLine(vardell::test::Run(other, {}), 1, "damaged");
}

TEST_F(ServerProgramTest, SaysThatThePortOfAgentsIsTaken) {
  StartServer();
  const std::string taken = "127.0.0.1:" + std::to_string(port_);
  server_.Signal(SIGTERM);
  ASSERT_EQ(server_.Wait(), 0);
  const int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_port = htons(port_);
  in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(holder, reinterpret_cast<const sockaddr*>(&in), sizeof in), 0);
  ASSERT_EQ(listen(holder, 1), 0);
  ExpectOneLine(vardell::test::Run(Command(taken), {}), 1, taken.c_str());
  close(holder);
}

}  // namespace
}  // namespace vardell::server
