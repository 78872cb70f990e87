// Two real Servers that share one PostgreSQL and two real agents, on three machines with an Avahi
// daemon each: one Server is lost, and its agent goes on with the other. Seen from outside: the
// moments at which programs are launched and end, beside the ledger in the database.
#include <gtest/gtest.h>
#include <sched.h>

#include "tests/integration/Lifetimes.h"
#include "tests/support/PostgresCluster.h"

namespace vardell::test {
namespace {

constexpr int kShortSecondMs = 60;
constexpr int kCredit = 4;

constexpr char kAvahiConfiguration[] =
    "[server]\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=lan\nratelimit-interval-usec=0\n"
    "[wide-area]\nenable-wide-area=no\n[publish]\npublish-hinfo=no\npublish-workstation=no\n";

bool Succeeds(const std::string& script) {
  const Finished finished = Run({"sh", "-c", script}, {});
  if (finished.status != 0) {
    fprintf(stderr, "%s: %s\n", script.c_str(), qPrintable(finished.output));
  }
  return finished.status == 0;
}

// On the bridge of a test's own network, as 10.99.0.<number>.
class Machine {
 public:
  explicit Machine(int number) : name_("m" + std::to_string(number)) {
    const std::string address = "10.99.0." + std::to_string(number) + "/24";
    holder_ = Program({"unshare", "--net", "--mount", "--uts", "sh", "-c",
                       "hostname " + name_ +
                           " && mount -t tmpfs none /run && ip link set lo up && echo there; exec "
                           "sleep infinity"},
                      {.output = Path("holder")});
    if (!holder_.WaitForOutput(QStringLiteral("there"))) return;
    const std::string pid = std::to_string(holder_.pid());
    if (!Succeeds("ip link add " + name_ + " type veth peer name lan netns " + pid +
                  " && ip link set " + name_ + " master bridge up && nsenter -n -t " + pid +
                  " sh -c 'ip addr add " + address + " dev lan && ip link set lan up'")) {
      return;
    }
    QFile file(folder_.filePath(QStringLiteral("avahi.conf")));
    if (!file.open(QIODevice::WriteOnly) || file.write(kAvahiConfiguration) < 0) return;
    file.close();
    bus_ = Start({"dbus-daemon", "--session", "--nofork", "--nopidfile",
                  "--address=unix:path=" + Path("bus")},
                 {}, Path("bus.log"));
    if (!WaitUntil([this] { return QFile::exists(folder_.filePath(QStringLiteral("bus"))); })) {
      return;
    }
    avahi_ = Start({"avahi-daemon", "-f", file.fileName().toStdString(), "--no-drop-root",
                    "--no-chroot", "--no-rlimits", "--no-proc-title"},
                   {}, Path("avahi.log"));
  }

  // Up to where services can be published and found.
  bool IsThere() const { return avahi_.WaitForOutput(QStringLiteral("Server startup complete")); }
  // The command that runs `command` there.
  std::vector<std::string> There(const std::vector<std::string>& command) const {
    const std::string spaces = "/proc/" + std::to_string(holder_.pid()) + "/ns/";
    std::vector<std::string> words{"nsenter",
                                   "--net=" + spaces + "net",
                                   "--mount=" + spaces + "mnt",
                                   "--uts=" + spaces + "uts",
                                   "env",
                                   "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + Path("bus")};
    words.insert(words.end(), command.begin(), command.end());
    return words;
  }
  Program Start(const std::vector<std::string>& command,
                const std::map<std::string, std::string>& environment,
                const std::string& log) const {
    return Program(There(command), {.environment = environment, .output = log, .ownSession = true});
  }
  // As where the plug is pulled: nothing more is heard of it, no farewell either.
  void Cut() const { EXPECT_TRUE(Succeeds("ip link set " + name_ + " down")); }

 private:
  std::string Path(const char* file) const {
    return folder_.filePath(QLatin1String(file)).toStdString();
  }

  const std::string name_;
  QTemporaryDir folder_;
  Program holder_;
  Program bus_;
  Program avahi_;
};

struct Loss {
  const char* name;
  void (*begin)(World&, const Machine&);
  void (*end)(World&);
};

void PrintTo(const Loss& loss, std::ostream* out) {
  *out << loss.name;
}

class SeveralServersTest : public testing::TestWithParam<Loss> {
 protected:
  static constexpr char kGame[] = "game";

  void SetUp() override {
    if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "needs root, for machines of its own";
    ASSERT_TRUE(
        Succeeds("ip link set lo up && ip link add bridge type bridge && "
                 "ip link set bridge up"));
    for (int i = 1; i <= 3; ++i) machines_.emplace_back(i);
    cluster_.emplace();
    for (const Machine& machine : machines_) ASSERT_TRUE(machine.IsThere());
    // What is announced last is found first.
    ASSERT_TRUE(StartServer(far_, machines_[1]));
    ASSERT_TRUE(StartServer(near_, machines_[0]));
    near_.SetLimits(kGame, {"Credit=" + std::to_string(kCredit)});
    for (World* world : {&near_, &far_}) world->InstallApplication(kGame, "/bin/sleep");
    near_.agent = machines_[2].Start({kAgent}, near_.Environment(), near_.Path("agent.log"));
    // On a screen of its own.
    std::vector<std::string> desktop = machines_[1].There({kAgent});
    desktop.insert(desktop.begin(), {VARDELL_SOURCE_DIR "/tools/desktop", "--dir",
                                     far_.Path("desktop"), "--no-avahi", "--"});
    far_.agent =
        Program(desktop, {.environment = far_.Environment(), .output = far_.Path("agent.log")});
    for (World* world : {&near_, &far_}) {
      ASSERT_TRUE(WaitUntil([&] { return Agents(*world) == 1; }));
    }
  }
  void TearDown() override {
    for (World* world : {&near_, &far_}) {
      world->agent.End(SIGTERM);
      if (!HasFailure()) continue;
      fprintf(stderr, "--- agent\n%s\n--- Server\n%s\n", qPrintable(world->AgentOutput()),
              qPrintable(world->server.Output()));
    }
  }

  bool StartServer(World& world, const Machine& machine) const {
    world.server = machine.Start({VARDELL_BIN_DIR "/vardell-server", "--store", Store()},
                                 world.Environment(), world.Path("server.log"));
    return world.server.WaitForOutput(QStringLiteral("published as"));
  }
  // Connected to the Server there.
  static int Agents(World& world) {
    const QJsonDocument json =
        QJsonDocument::fromJson(world.Ctl({"status", "--json"}).output.toUtf8());
    return static_cast<int>(json[QLatin1String("connected")].toArray().size());
  }
  std::string Store() const { return cluster_->Uri(QStringLiteral("postgres")).toStdString(); }
  // What the database says, in one line.
  std::string Sql(const std::string& query) const {
    const Finished finished =
        test::Run({PostgresProgram("psql"), "-AtX", "-d", Store(), "-c", query}, {});
    EXPECT_EQ(finished.status, 0) << qPrintable(finished.output);
    return finished.output.trimmed().toStdString();
  }
  // Minutes that were used on a host, of them those that one Server booked.
  int Used(const char* host, const std::string& server = "true") const {
    return std::stoi(Sql("SELECT coalesce(sum(used), 0) FROM ledger WHERE host = '" +
                         std::string(host) + "' AND " + server));
  }

  static constexpr char kAgent[] = VARDELL_BIN_DIR "/vardell-agent";
  World near_{kShortSecondMs};  // a Server on the first machine, an agent on the third
  World far_{kShortSecondMs};   // both on the second
  std::deque<Machine> machines_;
  std::optional<PostgresCluster> cluster_;
};

// The two spend one credit.
TEST_P(SeveralServersTest, TheAgentOfALostServerGoesOnWithTheOther) {
  constexpr char kNearHost[] = "10.99.0.3";
  constexpr char kFarHost[] = "local";
  Lifetimes near(near_, kShortSecondMs);
  Lifetimes far(far_, kShortSecondMs);
  const StallMeter stalls(near_.Path("stalls"));
  const double began = near.Now();
  (void)near.Launch(kGame);
  near.At(began + 10, [&] { (void)far.Launch(kGame); });
  near.At(began + 35, [&] {
    EXPECT_EQ(Used(kNearHost), 1);
    EXPECT_EQ(Used(kFarHost), 1);
    GetParam().begin(near_, machines_[0]);
  });
  near.At(began + 140, [&] { GetParam().end(near_); });
  for (Lifetimes* lives : {&near, &far}) {
    EXPECT_TRUE(lives->Run(200)) << "a program does not end with its credit";
    lives->Signal(0, SIGKILL);
  }

  const double stall = static_cast<double>(stalls.Longest().count()) / kShortSecondMs;
  const std::string ofFar =
      "server = (SELECT DISTINCT server FROM ledger WHERE host = '" + std::string(kFarHost) + "')";
  const double nearDifference = 60 * Used(kNearHost) - near.SpanOf(0).Length();
  const double farDifference = 60 * Used(kFarHost) - far.SpanOf(0).Length();
  printf(
      "%s: lived %.1f and %.1f s; charged minus lived: %.1f s, and %.1f s where nothing was lost\n",
      GetParam().name, near.SpanOf(0).Length(), far.SpanOf(0).Length(), nearDifference,
      farDifference);
  EXPECT_GE(Used(kNearHost, ofFar), 1) << "no minute was charged through the other Server";
  EXPECT_GT(nearDifference, -60);
  EXPECT_LE(nearDifference, 120);
  EXPECT_GE(farDifference, -5 - 2 * stall);
  EXPECT_LE(farDifference, 60);
  EXPECT_EQ(Sql("SELECT sum(minutes) FROM ledger"), "0");
  EXPECT_EQ(Sql("SELECT minutes FROM credit"), "0");
}

const Loss kLosses[] = {
    {"Killed", [](World& world, const Machine&) { world.server.End(SIGKILL); }, [](World&) {}},
    {"CutOff", [](World&, const Machine& machine) { machine.Cut(); }, [](World&) {}},
    {"Frozen", [](World& world, const Machine&) { world.server.Signal(SIGSTOP); },
     [](World& world) { world.server.Signal(SIGCONT); }},
};

INSTANTIATE_TEST_SUITE_P(Losses, SeveralServersTest, testing::ValuesIn(kLosses),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace vardell::test
