// Credit is right to the minute, seen from outside: the moments at which programs are launched and
// end, beside what the Server's ledger says was used.
//
//   VARDELL_TEST_SEED=7           other lengths and moments
//   VARDELL_TEST_LIFETIMES=200    of random length, instead of 24
//   VARDELL_TEST_CREDITS=0,1,5,8  to be spent to their end, instead of 0,1,2
//   VARDELL_TEST_SECOND_MS=1000   a true second, for lifetimes and ends
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>

#include <QDir>
#include <QRegularExpression>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>

#include "link/LimitsRecord.h"
#include "tests/integration/Lifetimes.h"
#include "tests/server/Client.h"

namespace vardell::test {
namespace {

// Where only whole minutes matter.
constexpr int kShortSecondMs = 50;

std::string Setting(const char* name, const char* otherwise) {
  const char* given = getenv(name);
  return given ? given : otherwise;
}

int LengthOfASecond() {
  return std::stoi(Setting("VARDELL_TEST_SECOND_MS", std::to_string(kSecondMs).c_str()));
}

bool AlertIsUp() {
  return Run({"xdotool", "search", "--onlyvisible", "--name", "^Vardell$"}, {}).status == 0;
}

void Click() {
  (void)Run({"xdotool", "mousemove", "640", "400", "click", "1"}, {});
}

class RightToTheMinuteTest : public testing::Test {
 protected:
  explicit RightToTheMinuteTest(int secondMs = LengthOfASecond())
      : secondMs_(secondMs), world(secondMs) {
    const std::string seed = Setting("VARDELL_TEST_SEED", "20260");
    printf("VARDELL_TEST_SEED=%s, a second of %d ms\n", seed.c_str(), secondMs);
    random.seed(static_cast<unsigned>(std::stoul(seed)));
  }
  void TearDown() override {
    if (!HasFailure()) return;
    fprintf(stderr, "--- agent\n%s\n--- Server\n%s\n", qPrintable(world.AgentOutput()),
            qPrintable(world.server.Output()));
  }

  double Random(double least, double most) {
    return std::uniform_real_distribution<double>(least, most)(random);
  }
  void Add(const std::string& identifier, int credit) {
    world.InstallApplication(identifier, "/bin/sleep");
    world.SetLimits(identifier, {"Credit=" + std::to_string(credit)});
  }
  // Once the first minute of a program is in the ledger, the agent counts, and all that it reported
  // before is in the ledger too.
  [[nodiscard]] bool Counts(const std::string& marker) {
    Add(marker, 1000);
    const Program program = world.Launch(marker, {"infinity"});
    return WaitUntil([&] { return !world.Claims(marker).empty(); });
  }
  [[nodiscard]] bool Start(const std::string& listen = "127.0.0.1:0") {
    world.StartServer(listen);
    world.StartAgent();
    return Counts("first");
  }
  [[nodiscard]] bool Settle() { return Counts("last"); }

  const int secondMs_;
  std::mt19937 random;
  World world;
};

// --- Lives of any length.

void PrintHistogram(const std::vector<double>& differences) {
  std::map<int, int> bars;
  for (const double difference : differences) ++bars[static_cast<int>(std::floor(difference / 5))];
  for (const auto& [bar, count] : bars) {
    printf("  %4d to %3d s %4d %s\n", 5 * bar, 5 * bar + 5, count, std::string(count, '*').c_str());
  }
}

TEST_F(RightToTheMinuteTest, WhatIsChargedIsWhatWasLivedUpToTheMinuteThatHadBegun) {
  constexpr int kAtOnce = 12;
  constexpr double kLongestLife = 130;
  const int count = std::stoi(Setting("VARDELL_TEST_LIFETIMES", "24"));
  ASSERT_TRUE(Start());
  for (int i = 0; i < count; ++i) Add("life" + std::to_string(i), 1000);

  Lifetimes lives(world, secondMs_);
  const StallMeter stalls(world.Path("stalls"));
  // Not all in one moment: the agent asks the Server about one after the other.
  std::vector<double> free;
  while (free.size() < kAtOnce) free.push_back(lives.Now() + Random(0, 60));
  for (int i = 0; i < count; ++i) {
    double& next = *std::min_element(free.begin(), free.end());
    const double began = next + Random(0, 5);
    const double length = Random(1, kLongestLife);
    next = began + length;
    lives.Live("life" + std::to_string(i), began, length);
  }
  ASSERT_TRUE(lives.Run());
  ASSERT_TRUE(Settle());

  // What is not noticed because the machine was busy is not charged.
  const double stall = static_cast<double>(stalls.Longest().count()) / secondMs_;
  printf("the machine itself was up to %.2f s late\n", stall);
  const auto booked = ReadLedger(world);
  std::vector<double> differences;
  for (const auto& [identifier, spans] : lives.Spans()) {
    const auto found = booked.find(identifier);
    const int used = found == booked.end() ? 0 : found->second.used;
    differences.push_back(60 * used - spans[0].Length());
    EXPECT_GE(differences.back(), -5 - 2 * stall) << identifier << " lived " << spans[0].Length();
    EXPECT_LE(differences.back(), 60) << identifier << " lived " << spans[0].Length();
  }
  ASSERT_EQ(count, static_cast<int>(differences.size()));
  const double mean = std::accumulate(differences.begin(), differences.end(), 0.0) / count;
  const auto [least, most] = std::minmax_element(differences.begin(), differences.end());
  printf("%d lives, charged minus lived: min %.1f, max %.1f, mean %.1f s\n", count, *least, *most,
         mean);
  PrintHistogram(differences);
  // Four times what chance does to the mean of so many, which are spread evenly over a minute.
  EXPECT_NEAR(30, mean, 1 + 4 * 60 / std::sqrt(12.0 * count));
}

// --- The end.

// Whether somebody looks at the warnings or not: the first is clicked away, the others wait for it.
TEST_F(RightToTheMinuteTest, TheEndComesASecondAfterTheLastMinuteAndFreeMinutesComeOnce) {
  std::vector<int> credits;
  for (const QString& credit :
       QString::fromStdString(Setting("VARDELL_TEST_CREDITS", "0,1,2")).split(QLatin1Char(','))) {
    credits.push_back(credit.toInt());
  }
  const auto nameOf = [](int credit) { return "credit" + std::to_string(credit); };
  ASSERT_TRUE(Start());
  for (const int credit : credits) Add(nameOf(credit), credit);

  Lifetimes lives(world, secondMs_);
  const StallMeter stalls(world.Path("stalls"));
  double begin = lives.Now();
  for (const int credit : credits) {
    lives.Live(nameOf(credit), begin += Random(1, 4), 60 * credit + 120);
  }
  bool isWarned = false;
  lives.At(begin + 20, [&] {
    isWarned = AlertIsUp();
    Click();
  });
  ASSERT_TRUE(lives.Run());
  EXPECT_TRUE(isWarned);
  ASSERT_TRUE(WaitUntil([] {
    Click();
    return !AlertIsUp();
  }));

  // A launch may meet such a delay, and an end another.
  const double stall = static_cast<double>(stalls.Longest().count()) / secondMs_;
  const double tolerance = 1 + 2 * stall;
  printf("the machine itself was up to %.2f s late\n", stall);
  const auto booked = ReadLedger(world);
  const auto spans = lives.Spans();
  double endBefore = std::numeric_limits<double>::infinity();
  for (const int credit : credits) {
    const Span& span = spans.at(nameOf(credit))[0];
    const double lived = span.Length();
    const Booked& of = booked.at(nameOf(credit));
    // Where one ends, the next in the table is counted a second later.
    const double slip = endBefore < span.ended ? 1 : 0;
    endBefore = span.ended;
    printf("  credit %d: ended after %.2f s, %d min used, %d of them free\n", credit, lived,
           of.used, of.grace);
    EXPECT_NEAR(60 * std::max(credit, 1) + 1 + slip, lived, tolerance) << "credit " << credit;
    EXPECT_EQ(std::max(credit, 1), of.used) << "credit " << credit;
    EXPECT_EQ(credit == 0 ? 1 : 0, of.grace) << "credit " << credit;
    EXPECT_EQ(0, world.Credit(nameOf(credit)));
  }

  // Launched again without credit, after a free minute or none: a warning, and the end when it is
  // clicked away.
  for (const int credit : {credits.front(), credits.back()}) {
    const std::size_t again = lives.Launch(nameOf(credit));
    ASSERT_TRUE(WaitUntil(AlertIsUp));
    Click();
    ASSERT_TRUE(lives.Run(30));
    printf("  credit %d, again: ended after %.2f s\n", credit, lives.SpanOf(again).Length());
    ASSERT_TRUE(WaitUntil([] { return !AlertIsUp(); }));
    EXPECT_EQ(booked.at(nameOf(credit)).used, ReadLedger(world).at(nameOf(credit)).used);
  }
}

// --- Events. None gains a minute, and none costs more than one beside the one that had begun.

class EventTest : public RightToTheMinuteTest {
 protected:
  EventTest() : RightToTheMinuteTest(kShortSecondMs) {}
  void ExpectWithinAMinute(const std::string& what, double charged, double lived) {
    printf("  %-44s charged %4.0f, lived %6.1f: %6.1f s\n", what.c_str(), charged, lived,
           charged - lived);
    EXPECT_GT(charged - lived, -60) << what;
    EXPECT_LE(charged - lived, 120) << what;
  }
  double Charged(const std::string& identifier) { return 60 * ReadLedger(world)[identifier].used; }
};

TEST_F(EventTest, OfApplications) {
  ASSERT_TRUE(Start());
  for (const char* name : {"stopped", "relaunched", "twice"}) Add(name, 1000);
  Lifetimes lives(world, secondMs_);
  const double began = lives.Now();

  std::size_t stopped = 0;
  lives.At(began, [&] { stopped = lives.Launch("stopped"); });
  for (const auto& [second, number] : {std::pair{30, SIGSTOP}, {155, SIGCONT}, {200, SIGKILL}}) {
    lives.At(began + second, [&, signal = number] { lives.Signal(stopped, signal); });
  }
  double next = began;
  for (int i = 0; i < 8; ++i) {
    const double length = Random(3, 45);
    lives.Live("relaunched", next, length);
    next += length + Random(0.2, 3);
  }
  lives.Live("twice", began + 3, 130);
  lives.Live("twice", began + 25, 165);
  ASSERT_TRUE(lives.Run());
  ASSERT_TRUE(Settle());

  auto spans = lives.Spans();
  for (const char* name : {"stopped", "relaunched", "twice"}) {
    ExpectWithinAMinute(name, Charged(name), UnionOf(spans[name]));
  }
}

// Another machine, in a network namespace of its own.
class OtherMachine {
 public:
  explicit OtherMachine(const std::string& log)
      : holder_({"unshare", "-n", "sh", "-c", "echo there; exec sleep infinity"}, {.output = log}) {
    const std::string pid = std::to_string(holder_.pid());
    if (!holder_.WaitForOutput(QStringLiteral("there"))) return;
    const Finished joined =
        Run({"sh", "-c",
             "ip link add near type veth peer name far netns " + pid +
                 " && ip addr add 10.99.0.1/24 dev near && ip link set near up && nsenter -n -t " +
                 pid + " sh -c 'ip addr add 10.99.0.2/24 dev far && ip link set far up'"},
            {});
    isThere_ = joined.status == 0;
    if (!isThere_) fprintf(stderr, "no other machine: %s\n", qPrintable(joined.output));
  }
  bool IsThere() const { return isThere_; }
  // From there to this machine.
  std::unique_ptr<Client> Connect(std::uint16_t port) const {
    const int here = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int there =
        open(("/proc/" + std::to_string(holder_.pid()) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    std::unique_ptr<Client> client;
    if (setns(there, CLONE_NEWNET) == 0) client = std::make_unique<Client>(port, "10.99.0.1");
    if (setns(here, CLONE_NEWNET) != 0) abort();
    close(here);
    close(there);
    return client;
  }

 private:
  Program holder_;
  bool isThere_ = false;
};

// An agent that says what an agent says for one application.
class ScriptedAgent {
 public:
  ScriptedAgent(std::unique_ptr<Client> client, const std::string& user,
                const std::string& identifier)
      : client_(std::move(client)),
        user_(QString::fromStdString(user)),
        identifier_(QString::fromStdString(identifier)) {}

  void Begin() {
    client_->Send(FrameOf(RequestKind::ApplicationStart, {user_, identifier_}));
    Fetch();
  }
  void PayMinute() {
    LimitsRecord record;
    record.credit = credit_ - 1;
    client_->Send(
        FrameOf(RequestKind::CreditReport, AppendLimitsRecordToData(user_, identifier_, record)));
    Fetch();
  }

 private:
  void Fetch() {
    client_->Send(FrameOf(RequestKind::FetchLimits, {user_, identifier_}));
    credit_ = client_->ReadDictionary()
                  .value_or(QVariantMap())
                  .value(QStringLiteral("Credit"), -1)
                  .toInt();
  }

  std::unique_ptr<Client> client_;
  QString user_;
  QString identifier_;
  int credit_ = 0;
};

TEST_F(EventTest, OfTwoHosts) {
  if (getuid() != 0) GTEST_SKIP() << "needs root, for another machine's address";
  const OtherMachine other(world.Path("other.log"));
  ASSERT_TRUE(other.IsThere());
  ASSERT_TRUE(Start("0.0.0.0:0"));
  Add("hosts", 1000);
  const QRegularExpression answering(QStringLiteral("answering agents at [^ ]*:(\\d+)\\b"));
  const auto port = answering.match(world.server.Output()).captured(1).toUShort();
  ScriptedAgent agent(other.Connect(port), world.user(), "hosts");

  Lifetimes lives(world, secondMs_);
  const double began = lives.Now();
  lives.Live("hosts", began, 190);
  const Span there{began + 20, began + 170};
  lives.At(there.began, [&] { agent.Begin(); });
  for (double second = there.began + 0.5; second < there.ended; second += 60) {
    lives.At(second, [&] { agent.PayMinute(); });
  }
  ASSERT_TRUE(lives.Run());
  ASSERT_TRUE(Settle());
  ExpectWithinAMinute("two hosts", Charged("hosts"),
                      lives.Spans()["hosts"][0].Length() + there.Length());
}

struct Event {
  const char* name;
  void (*begin)(World&);
  double lasts;
  void (*end)(World&);
};

// Ends the agent's connections to the Server, as a network does that goes away.
void DropConnections(World& world) {
  const QRegularExpression answering(QStringLiteral("answering agents at [^ ]*:(\\d+)\\b"));
  auto matches = answering.globalMatch(world.server.Output());
  std::uint16_t port = 0;
  while (matches.hasNext()) port = matches.next().captured(1).toUShort();
  const QDir folder(QStringLiteral("/proc/%1/fd").arg(world.agent.pid()));
  int dropped = 0;
  for (const QString& name : folder.entryList(QDir::Files | QDir::System)) {
    const int copy =
        static_cast<int>(syscall(SYS_pidfd_getfd, world.agent.pidfd(), name.toInt(), 0));
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    if (getpeername(copy, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
        peer.sin_family == AF_INET && ntohs(peer.sin_port) == port && port != 0) {
      dropped += shutdown(copy, SHUT_RDWR) == 0 ? 1 : 0;
    }
    close(copy);
  }
  EXPECT_EQ(1, dropped);
}

void RestartAgent(World& world) {
  world.agent.End(SIGKILL);
  world.StartAgent();
}

void Nothing(World&) {}

const Event kEvents[] = {
    {"AgentKilledAndRestarted", RestartAgent, 0, Nothing},
    {"AgentStoppedForMinutes", [](World& world) { world.agent.Signal(SIGSTOP); }, 130,
     [](World& world) { world.agent.Signal(SIGCONT); }},
    {"ServerKilledAndRestarted", [](World& world) { world.server.End(SIGKILL); }, 0,
     [](World& world) { world.StartServer(); }},
    {"ServerStoppedForMinutes", [](World& world) { world.server.Signal(SIGSTOP); }, 130,
     [](World& world) { world.server.Signal(SIGCONT); }},
    {"ConnectionDropped", DropConnections, 0, Nothing},
};

class EventOfProgramsTest : public EventTest, public testing::WithParamInterface<Event> {};

// It meets six applications at six points of their minute.
TEST_P(EventOfProgramsTest, GainsNoMinuteAndCostsNoneButOne) {
  const Event& event = GetParam();
  constexpr int kCount = 6;
  ASSERT_TRUE(Start());
  Lifetimes lives(world, secondMs_);
  const auto nameOf = [](int number) { return "life" + std::to_string(number); };
  for (int i = 0; i < kCount; ++i) Add(nameOf(i), 1000);
  const double began = lives.Now();
  const double at = began + 65;
  for (int i = 0; i < kCount; ++i) {
    const double from = began + 9 * i + Random(0, 9);
    lives.Live(nameOf(i), from, at + event.lasts + Random(61, 100) - from);
  }
  lives.At(at, [&] { event.begin(world); });
  lives.At(at + event.lasts, [&] { event.end(world); });
  ASSERT_TRUE(lives.Run());
  ASSERT_TRUE(Settle());
  const auto spans = lives.Spans();
  for (int i = 0; i < kCount; ++i) {
    ExpectWithinAMinute(event.name, Charged(nameOf(i)), spans.at(nameOf(i))[0].Length());
  }
}

INSTANTIATE_TEST_SUITE_P(Events, EventOfProgramsTest, testing::ValuesIn(kEvents),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace vardell::test
