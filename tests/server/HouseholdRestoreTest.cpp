#include "server/HouseholdRestore.h"

#include "server/Backup.h"
#include "tests/server/FullDisk.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {
namespace {

const QString kCredit = QStringLiteral("Credit");
const QString kZoe = QStringLiteral("zoe");

// Anna's limit and use, and room to put a backup of several steps in their place.
class HouseholdRestoreTest : public HouseholdFixture {
 protected:
  void SetUp() override {
    HouseholdFixture::SetUp();
    Limit({{kCredit, 30}});
    Limit({{kCredit, 30}}, game_, kZoe);
    Limit({{kCredit, 5}}, QStringLiteral("org.example.other"), anna_);
    Start();
    (void)Fetch();
    Report(1, 29);
    (void)Fetch();
  }

  Backup Large() const {
    Backup backup;
    backup.limits.push_back(*household_->Limits(anna_, game_));
    backup.limits.back().credit = 100;
    backup.limits.push_back(*household_->Limits(kZoe, game_));
    backup.usage.push_back({anna_, game_, {{now_.date(), 50}}});
    for (int user = 0; user < 3; ++user) {
      UsageEntry& entry = backup.usage.emplace_back();
      entry.user = QStringLiteral("user%1").arg(user);
      entry.identifier = game_;
      for (int day = 0; day < 2500; ++day) entry.days[now_.date().addDays(-day)] = 1 + day % 7;
    }
    backup.usage.push_back({kZoe, game_, {{now_.date(), 7}}});
    return backup;
  }

  static QByteArray Text(const Backup& backup) { return WriteBackup(backup, QDateTime(), {}); }
  QByteArray State() const { return Text(household_->MakeBackup()); }

  static RestoreResult Finish(Household::Restore& restore) {
    for (;;) {
      if (const auto result = restore.Step()) return *result;
    }
  }
  // Attempts get further each time, up to the one that comes to its end.
  void ExpectAllOrNothing(
      const std::function<std::optional<RestoreResult>(const Backup&, int number)>& attempt) {
    const QByteArray before = State();
    const Backup backup = Large();
    std::optional<RestoreResult> result;
    int failures = 0;
    for (; !(result = attempt(backup, failures + 1)); ++failures) {
      SCOPED_TRACE(failures);
      ASSERT_LT(failures, 100);
      EXPECT_EQ(State(), before);
      for (const LedgerRow& row : Ledger()) EXPECT_NE(row.source, QStringLiteral("restore"));
      if (failures % 2 == 0) Open();
      EXPECT_EQ(State(), before);
    }
    EXPECT_GT(failures, 3);
    EXPECT_EQ(result->status, AdminStatus::Ok);
    EXPECT_EQ(result->counts.removed, 1);
    EXPECT_EQ(result->counts.changed, 1);
    EXPECT_EQ(result->counts.same, 1);
    for (const char* when : {"at once", "after a restart"}) {
      EXPECT_EQ(State(), Text(backup)) << when;
      Open();
    }
  }
};

TEST_F(HouseholdRestoreTest, AgentsGoOnAndNoMinuteIsGainedOrLostBeyondTheBackup) {
  const Backup backup = Large();
  const std::size_t rowsBefore = Ledger().size();
  const AgentConnection remote{9, QStringLiteral("192.0.2.9"), std::nullopt};
  household_->ApplicationStarted(remote, kZoe, game_);
  {
    const auto restore = household_->BeginRestore(root_, backup);
    EXPECT_EQ(household_->BeginRestore(root_, backup), nullptr) << "one at a time";
    for (int step = 0; step < 3; ++step) ASSERT_FALSE(restore->Step());
    Report(61, 28);
    EXPECT_EQ(Fetch(), 28);
    household_->CreditReport(remote, kZoe, game_, 29);
    EXPECT_EQ(Ledger().size(), rowsBefore) << "a reader who goes on from there misses none";
    EXPECT_EQ(Finish(*restore).status, AdminStatus::Ok);
  }
  EXPECT_EQ(State(), Text(backup));
  std::int64_t last = 0;
  std::size_t rows = 0;
  for (auto page = household_->Ledger(0, {}, {}, 1000); !page->empty();
       page = household_->Ledger(last, {}, {}, 1000)) {
    rows += page->size();
    last = page->back().id;
  }
  EXPECT_GT(rows, 7500u);

  Report(121, 27);
  EXPECT_EQ(Credit(), 99) << "claimed against what was handed before";
  Report(122, 20);
  EXPECT_EQ(Credit(), 99) << "paid until the next minute, as before";
  EXPECT_EQ(household_->Usage(anna_, game_)->at(now_.date()), 51);
  Open();
  EXPECT_EQ(Credit(), 99);
  EXPECT_EQ(household_->Usage(anna_, game_)->at(now_.date()), 51);
  EXPECT_EQ(household_->Usage(kZoe, game_)->at(now_.date()), 7);
}

TEST_F(HouseholdRestoreTest, UseThatBeginsRightBeforeTheLastStepIsReplacedToo) {
  const Backup backup = household_->MakeBackup();
  const AgentConnection remote{9, QStringLiteral("192.0.2.9"), std::nullopt};
  auto restore = household_->BeginRestore(root_, backup);
  while (!restore->IsLastStepNext()) ASSERT_FALSE(restore->Step());
  household_->CreditReport(remote, kZoe, game_, 29);
  EXPECT_EQ(household_->Usage(kZoe, game_)->size(), 1u);
  EXPECT_EQ(Finish(*restore).status, AdminStatus::Ok);
  restore.reset();
  for (const char* when : {"at once", "after a restart"}) {
    EXPECT_EQ(State(), Text(backup)) << when;
    Open();
  }
}

TEST_F(HouseholdRestoreTest, GivenUpAfterAnyStepItLeavesEverythingAsItWas) {
  ExpectAllOrNothing([this](const Backup& backup, int steps) {
    const auto restore = household_->BeginRestore(root_, backup);
    std::optional<RestoreResult> result;
    for (int step = 0; step < steps && !result; ++step) result = restore->Step();
    return result;
  });
}

TEST_F(HouseholdRestoreTest, AFullDiskAtAnyPointLeavesEverythingAsItWas) {
  ExpectAllOrNothing([this](const Backup& backup, int number) -> std::optional<RestoreResult> {
    const FullDisk full(static_cast<rlim_t>(number - 1) * 250000);
    const RestoreResult result = Finish(*household_->BeginRestore(root_, backup));
    if (result.status == AdminStatus::Ok) return result;
    EXPECT_FALSE(result.message.isEmpty());
    return std::nullopt;
  });
}

}  // namespace
}  // namespace vardell::server
