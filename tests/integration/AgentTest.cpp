#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <QVariant>

#include "tests/integration/World.h"

namespace vardell::test {
namespace {

std::vector<int> FirstOf(std::vector<int> values, std::size_t count) {
  values.resize(std::min(values.size(), count));
  return values;
}

bool AlertIsUp() {
  return Run({"xdotool", "search", "--onlyvisible", "--name", "^Vardell$"}, {}).status == 0;
}

// A request lies unread at a Server that is stopped.
bool SomebodyWaitsForTheServer() {
  QFile table(QStringLiteral("/proc/net/tcp"));
  if (!table.open(QIODevice::ReadOnly)) return false;
  for (const QByteArray& line : table.readAll().split('\n')) {
    const QList<QByteArray> fields = line.simplified().split(' ');
    if (fields.size() > 4 && fields[3] == "01" && !fields[4].endsWith(":00000000")) return true;
  }
  return false;
}

class AgentTest : public testing::Test {
 protected:
  void TearDown() override {
    if (HasFailure()) {
      fprintf(stderr, "--- agent\n%s\n--- Server\n%s\n", qPrintable(world.agent.Output()),
              qPrintable(world.server.Output()));
    }
  }

  bool WitnessPays(int minutes) {
    return WaitUntil([&] { return static_cast<int>(world.Claims("witness").size()) >= minutes; },
                     kPatience + world.Seconds(60 * minutes));
  }

  World world;
};

TEST_F(AgentTest, EndsAnApplicationWhenItsCreditIsSpentAndLeavesOthersAlone) {
  world.InstallApplication("toy");
  world.InstallApplication("free");
  ASSERT_TRUE(world.StartAll());
  world.SetLimits("toy", {"Credit=2"});

  Program free = world.Launch("free");
  const auto began = Clock::now();
  Program toy = world.Launch("toy");
  ASSERT_TRUE(world.WaitForClaims("toy", {1}));
  EXPECT_TRUE(WaitUntil(AlertIsUp, kPatience + world.Seconds(60)));
  // Nobody clicks the warning away: it does not stop the count.
  ASSERT_TRUE(WaitForExit(toy.pidfd(), kPatience + world.Seconds(122)));
  EXPECT_GE(Clock::now() - began, world.Seconds(120));
  EXPECT_EQ(-SIGKILL, toy.Wait());
  EXPECT_TRUE(world.WaitForClaims("toy", {1, 0, -1}));
  EXPECT_EQ(0, world.Credit("toy"));
  EXPECT_TRUE(free.IsRunning());
  EXPECT_TRUE(world.Claims("free").empty());
}

TEST_F(AgentTest, KeepsTheTableRightWhateverBecomesOfApplications) {
  for (const char* name : {"quitter", "killed", "twice", "second"}) world.InstallApplication(name);
  for (const char* name : {"forker", "execer"}) world.InstallApplication(name, "/bin/bash");
  ASSERT_TRUE(world.StartAll());
  for (const char* name : {"quitter", "killed", "twice", "second", "forker", "execer"}) {
    world.SetLimits(name, {"Credit=60"});
  }
  Program quitter = world.Launch("quitter");
  Program killed = world.Launch("killed");
  Program first = world.Launch("twice");
  Program other = world.Launch("twice");
  Program forker =
      world.Launch("forker", {"-c", "never='" + world.Path("never") +
                                        "'; (read x < $never; :) & (read x < $never; :) & wait"});
  ASSERT_EQ(0, mkfifo(world.Path("go").c_str(), 0600));
  Program execer = world.Launch("execer", {"-c", "read go < '" + world.Path("go") + "'; exec '" +
                                                     world.ExecutableOf("second") + "'"});
  for (const char* name : {"quitter", "killed", "forker", "execer"}) {
    ASSERT_TRUE(WaitUntil([&] { return FirstOf(world.Claims(name), 1) == std::vector{59}; }))
        << name;
  }
  world.StartWitness();
  ASSERT_TRUE(WitnessPays(1));

  quitter.End(SIGTERM);
  killed.End(SIGKILL);
  first.End(SIGKILL);
  {
    QFile go(QString::fromStdString(world.Path("go")));
    ASSERT_TRUE(go.open(QIODevice::WriteOnly));
    go.write("\n");
  }
  EXPECT_TRUE(WaitUntil([&] { return FirstOf(world.Claims("second"), 1) == std::vector{59}; }));
  const auto quitterBefore = world.Claims("quitter");
  const auto killedBefore = world.Claims("killed");
  const auto execerBefore = world.Claims("execer");
  const int twiceBefore = world.Credit("twice").value_or(-1);
  const int paid = static_cast<int>(world.Claims("witness").size());
  ASSERT_TRUE(WitnessPays(paid + 2));

  EXPECT_EQ(quitterBefore, world.Claims("quitter"));
  EXPECT_EQ(killedBefore, world.Claims("killed"));
  EXPECT_EQ(execerBefore, world.Claims("execer"));
  EXPECT_GE(world.Claims("second").size(), 2u);
  EXPECT_EQ(twiceBefore - 2, world.Credit("twice"));
  EXPECT_NEAR(world.Credit("witness").value_or(0) - 40, world.Credit("forker").value_or(0), 1.0);
}

TEST_F(AgentTest, GoesOnWhenAnApplicationQuitsUnderItsOwnWarning) {
  world.InstallApplication("toy");
  ASSERT_TRUE(world.StartAll());
  world.SetLimits("toy", {"Credit=1"});
  {
    Program toy = world.Launch("toy");
    ASSERT_TRUE(WaitUntil(AlertIsUp));
  }
  world.SetLimits("toy", {"Credit=9"});
  world.StartWitness();
  ASSERT_TRUE(WitnessPays(2));
  EXPECT_EQ(std::vector{0}, world.Claims("toy"));

  Program again = world.Launch("toy");
  EXPECT_TRUE(world.WaitForClaims("toy", {0, 8}));
}

TEST_F(AgentTest, WatchesWhatIsLaunchedWhileARequestBlocks) {
  for (const char* name : {"early", "late"}) world.InstallApplication(name);
  ASSERT_TRUE(world.StartAll());
  world.StartWitness();
  ASSERT_TRUE(WitnessPays(1));
  for (const char* name : {"early", "late"}) world.SetLimits(name, {"Credit=60"});

  world.server.Signal(SIGSTOP);
  Program early = world.Launch("early");
  ASSERT_TRUE(WaitUntil(SomebodyWaitsForTheServer));
  Program late = world.Launch("late");
  world.server.Signal(SIGCONT);
  for (const char* name : {"early", "late"}) {
    EXPECT_TRUE(WaitUntil([&] { return FirstOf(world.Claims(name), 1) == std::vector{59}; }))
        << name;
  }
}

TEST_F(AgentTest, LosesNoSecondsWhileItIsStopped) {
  ASSERT_TRUE(world.StartAll());
  world.StartWitness();
  ASSERT_TRUE(WitnessPays(1));
  world.agent.Signal(SIGSTOP);
  ASSERT_FALSE(WaitUntil([&] { return world.Claims("witness").size() > 1; }, world.Seconds(190)));
  world.agent.Signal(SIGCONT);
  EXPECT_TRUE(WaitUntil([&] { return world.Claims("witness").size() >= 4; }, 4s));
  EXPECT_EQ((std::vector{99, 98, 97, 96}), FirstOf(world.Claims("witness"), 4));
  EXPECT_LE(world.Credit("witness").value_or(100), 96);
}

TEST_F(AgentTest, GoesOnWithAServerThatWasKilledAndCameBackElsewhere) {
  ASSERT_TRUE(world.StartAll());
  world.StartWitness();
  ASSERT_TRUE(WitnessPays(1));
  const auto before = world.Credit("witness");
  world.server.End(SIGKILL);
  ASSERT_TRUE(world.witness.IsRunning());
  world.StartServer();
  EXPECT_EQ(before, world.Credit("witness"));
  EXPECT_TRUE(WitnessPays(3));
  EXPECT_GE(world.Credit("witness").value_or(0), 90);
  EXPECT_TRUE(world.witness.IsRunning());
}

struct Configuration {
  const char* behaviour;
  int value;
  bool messageShown;
  bool watchesOnceTheServerIsThere;
};

class WithoutServerTest : public AgentTest, public testing::WithParamInterface<Configuration> {};

TEST_P(WithoutServerTest, ActsAsConfigured) {
  world.WritePreferences({{"Configuration", GetParam().value}});
  world.StartAgent();
  ASSERT_TRUE(
      world.agent.WaitForOutput("Cannot contact server err = -1.", kPatience + world.Seconds(60)));
  if (GetParam().messageShown) {
    EXPECT_TRUE(WaitUntil(AlertIsUp));
  }
  world.StartServer();
  world.StartWitness();
  if (GetParam().watchesOnceTheServerIsThere) {
    EXPECT_TRUE(WitnessPays(1));
    EXPECT_TRUE(WaitUntil([] { return !AlertIsUp(); }));
  } else {
    EXPECT_FALSE(WaitUntil([&] { return !world.Claims("witness").empty(); }, world.Seconds(70)));
    EXPECT_TRUE(AlertIsUp());
  }
  EXPECT_TRUE(world.agent.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(
    Configurations, WithoutServerTest,
    testing::Values(Configuration{"carries on and watches as soon as the Server appears", 0, false,
                                  true},
                    Configuration{"locks for good", 1, true, false},
                    Configuration{"locks, and resumes when the Server appears", 2, true, true}),
    [](const auto& row) { return "Configuration" + std::to_string(row.param.value); });

TEST_F(AgentTest, LeavesANonWatchedAccountAlone) {
  world.WritePreferences({{"Non-watched account", QString::fromStdString(world.user()).toUpper()}});
  world.StartServer();
  world.StartAgent();
  ASSERT_TRUE(world.agent.WaitForOutput("Cannot watch this user."));
  world.StartWitness();
  EXPECT_FALSE(WaitUntil([&] { return !world.Claims("witness").empty(); }, world.Seconds(30)));
  EXPECT_TRUE(world.agent.IsRunning());
}

TEST_F(AgentTest, EndsTheSessionWhenItsCreditIsSpent) {
  world.StartServer();
  world.SetLimits("computer", {"Credit=1"});
  world.StartAgentInSession();
  ASSERT_TRUE(WaitForExit(world.leader.pidfd(), kPatience + world.Seconds(62)));
  EXPECT_EQ(-SIGKILL, world.leader.Wait());
  EXPECT_TRUE(world.WaitForClaims("computer", {0, -1}));
}

}  // namespace
}  // namespace vardell::test
