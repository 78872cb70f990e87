// A database that is slow, or away for long: agents are answered all the same, and afterwards it
// has everything once. VARDELL_TEST_AWAY=60 makes it long: seconds.
#include "tests/server/CrashLoad.h"
#include "tests/support/PostgresCluster.h"

namespace vardell::server {
namespace {

class LostDatabaseTest : public CrashFixture {
 protected:
  void SetUp() override {
    CrashFixture::SetUp();
    if (IsSkipped()) return;
    cluster_.emplace();
    server_.emplace(RealServer::Options{folder_.path().toStdString(),
                                        cluster_->Uri(QStringLiteral("postgres")).toStdString()});
    ASSERT_TRUE(server_->Start());
    for (const QString& name : applications_) ASSERT_EQ(server_->MakeLimit(name).status, 201);
    load_.AddAgents(applications_, {{server_->Port()}});
    load_.AddAdministrator(*server_, applications_, QStringLiteral("a"));
    ASSERT_TRUE(load_.Goes(3));
  }
  void TearDown() override {
    if (IsSkipped() || HasFatalFailure()) return;
    load_.CheckEnd(*server_);
    std::printf(
        "%llu reports and %zu adjustments acknowledged, %llu lost, %llu doubled; longest "
        "wait %lld ms\n",
        static_cast<unsigned long long>(load_.Acknowledged()), load_.Adjustments(),
        static_cast<unsigned long long>(load_.lost), static_cast<unsigned long long>(load_.doubled),
        static_cast<long long>(load_.LongestWait().count()));
  }
  // Agents go on that long.
  void GoOnFor(std::chrono::milliseconds time) {
    const auto end = Clock::now() + time;
    while (Clock::now() < end) ASSERT_TRUE(load_.Goes()) << qPrintable(server_->Log());
  }
  QString StatusText() const {
    return test::Run({VARDELL_BIN_DIR "/vardellctl", "--control", server_->Control().toStdString(),
                      "status"},
                     {})
        .output;
  }

  const QStringList applications_ = Load::Applications(CampaignOr("VARDELL_TEST_AGENTS", 6));
  const std::chrono::seconds away_{CampaignOr("VARDELL_TEST_AWAY", 2)};
  std::optional<PostgresCluster> cluster_;
  std::optional<RealServer> server_;
  Load load_;
};

TEST_F(LostDatabaseTest, OneThatStandsStillKeepsNobodyWaiting) {
  cluster_->Freeze();
  GoOnFor(std::min<std::chrono::seconds>(away_, 5s));
  EXPECT_EQ(server_->Count("agents are answered from memory"), 1) << qPrintable(server_->Log());
  const LoadAdministrator::Told told = load_.Administrator().Look();
  EXPECT_EQ(told.refusals, std::set<int>{503});
  const QString sentences = told.sentences.join(QLatin1Char('\n'));
  EXPECT_TRUE(sentences.contains(QStringLiteral("see that PostgreSQL runs")))
      << qPrintable(sentences);
  EXPECT_TRUE(StatusText().contains(QStringLiteral("The store is away")))
      << qPrintable(StatusText());
  cluster_->Thaw();
  load_.Check(*server_, Load::Seen::MayLag);
  EXPECT_EQ(server_->Count("takes changes again"), 1) << qPrintable(server_->Log());
  EXPECT_FALSE(StatusText().contains(QStringLiteral("The store is away")));
}

TEST_F(LostDatabaseTest, WhatWasSpooledIsAppliedByTheNextServerWhenItIsBack) {
  cluster_->Kill();
  GoOnFor(away_);
  EXPECT_GT(server_->Status().value(QLatin1String("spooled")).toInt(), 0);
  server_->Kill();
  server_->Launch();
  ASSERT_TRUE(WaitUntil([&] { return server_->Says("waiting for it"); }));
  EXPECT_FALSE(server_->Says("answering agents"));
  cluster_->Start();
  ASSERT_TRUE(server_->WaitUntilReady());
  load_.Check(*server_, Load::Seen::MayLag);
}

TEST_F(LostDatabaseTest, WhatWasSaidWhileItStoodStillOutlivesTheServer) {
  for (int round = 0; round < CampaignOr("VARDELL_TEST_KILLS", 2) && !HasFailure(); ++round) {
    cluster_->Freeze();
    GoOnFor(std::chrono::milliseconds(Random(0, 2500)));
    server_->Kill();
    cluster_->Thaw();
    ASSERT_TRUE(server_->Start());
    load_.Check(*server_, Load::Seen::MayLag);
  }
}

}  // namespace
}  // namespace vardell::server
