// Servers and databases that are killed again and again while agents and an administrator go on:
// what anybody was told is in the ledger, once. VARDELL_TEST_KILLS=1000 makes a campaign of it.
#include "tests/server/CrashLoad.h"
#include "tests/support/PostgresCluster.h"

namespace vardell::server {
namespace {

class CrashTest : public CrashFixture {
 protected:
  // At any moment: while it starts, or while it answers.
  void KillServer(RealServer& server, Load& load) {
    if (Random(0, 4) == 0) {
      Pause(100);
    } else {
      ASSERT_TRUE(server.WaitUntilReady());
      ASSERT_TRUE(load.Goes());
      Pause(120);
    }
    server.Kill();
    ++kills_;
  }
  void MakeLimits(RealServer& server) {
    for (const QString& name : applications_) ASSERT_EQ(server.MakeLimit(name).status, 201);
  }
  void Report(const char* what, const Load& load) const {
    std::printf(
        "%s: %d kills of the Server, %d of the database; %llu reports and %zu adjustments "
        "acknowledged, %llu lost, %llu doubled; longest wait %lld ms\n",
        what, kills_, databaseKills_, static_cast<unsigned long long>(load.Acknowledged()),
        load.Adjustments(), static_cast<unsigned long long>(load.lost),
        static_cast<unsigned long long>(load.doubled),
        static_cast<long long>(load.LongestWait().count()));
  }

  const QStringList applications_ = Load::Applications(CampaignOr("VARDELL_TEST_AGENTS", 6));
  int kills_ = 0;
  int databaseKills_ = 0;
};

TEST_F(CrashTest, NothingIsLostOrDoubledByKillsWithAFile) {
  RealServer server({folder_.path().toStdString(), Path("store.sqlite")});
  ASSERT_TRUE(server.Start());
  MakeLimits(server);
  Load load;
  load.AddAgents(applications_, {{server.Port()}});
  load.AddAdministrator(server, applications_, QStringLiteral("a"));
  const int wanted = CampaignOr("VARDELL_TEST_KILLS", 12);
  while (kills_ < wanted && !HasFailure()) {
    KillServer(server, load);
    server.Launch();
    if (kills_ % 4 != 0) continue;
    ASSERT_TRUE(server.WaitUntilReady());
    load.Check(server);
  }
  ASSERT_TRUE(server.WaitUntilReady());
  load.CheckEnd(server);
  Report("SQLite", load);
}

TEST_F(CrashTest, NothingIsLostOrDoubledByKillsOfServerAndDatabase) {
  PostgresCluster cluster;
  RealServer server(
      {folder_.path().toStdString(), cluster.Uri(QStringLiteral("postgres")).toStdString()});
  ASSERT_TRUE(server.Start());
  MakeLimits(server);
  Load load;
  load.AddAgents(applications_, {{server.Port()}});
  load.AddAdministrator(server, applications_, QStringLiteral("a"));
  const int wanted = CampaignOr("VARDELL_TEST_KILLS", 10);
  for (int round = 0; kills_ < wanted && !HasFailure(); ++round) {
    const bool isDatabase = round % 10 == 2;
    const bool isBoth = round % 10 == 7;
    if (isDatabase || isBoth) {
      ASSERT_TRUE(server.WaitUntilReady());
      ASSERT_TRUE(load.Goes());
      Pause(100);
      cluster.Kill();
      ++databaseKills_;
      // While it is away agents go on.
      ASSERT_TRUE(load.Goes(3)) << qPrintable(server.Log());
      Pause(1000);
    }
    if (!isDatabase) {
      KillServer(server, load);
      server.Launch();
    }
    if (isBoth) {
      Pause(500);
      EXPECT_FALSE(server.Says("answering agents"));
      EXPECT_TRUE(WaitUntil([&] { return server.Says("waiting for it"); }));
    }
    if (isDatabase || isBoth) cluster.Start();
    if (!isDatabase && kills_ % 4 != 0) continue;
    ASSERT_TRUE(server.WaitUntilReady());
    load.Check(server, Load::Seen::MayLag);
  }
  ASSERT_TRUE(server.WaitUntilReady());
  load.CheckEnd(server);
  Report("PostgreSQL", load);
}

}  // namespace
}  // namespace vardell::server
