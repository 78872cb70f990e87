#include "server/Household.h"

#include <signal.h>
#include <sys/resource.h>

#include "Common Sources/Caps.h"
#include "limits/WatchedApps.h"
#include "link/LimitsRecord.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {
namespace {

using HouseholdTest = HouseholdFixture;

const QString kCredit = QStringLiteral("Credit");
const QString kEnabled = QStringLiteral("Enabled");
const QString kStart = QStringLiteral("WD start");

// Two minutes of use, from the launch to the end.
template <typename Test>
void SpendTwoMinutes(
    Test* test, const std::function<void()>& between = [] {}) {
  test->At(0);
  test->Start();
  EXPECT_EQ(test->Fetch(), 2);
  test->At(1);
  test->Report(1);
  between();
  EXPECT_EQ(test->Fetch(), 1);
  test->At(61);
  test->Report(0);
  between();
  EXPECT_EQ(test->Fetch(), 0);
  test->At(121);
  test->Report(-1);
  between();
  EXPECT_EQ(test->Fetch(), 0);
}

struct Spending : HouseholdFixture {
  using HouseholdFixture::At;
  using HouseholdFixture::Fetch;
  using HouseholdFixture::Report;
  using HouseholdFixture::Start;
};

TEST_F(Spending, IsInTheLedgerReportByReport) {
  Limit({{kCredit, 2}});
  SpendTwoMinutes(this);
  const std::vector<LedgerRow> rows = Ledger();
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[0].source, QStringLiteral("admin"));
  EXPECT_EQ(rows[0].minutes, 2);
  EXPECT_EQ(rows[0].actor, root_.name);
  const std::int32_t claims[] = {1, 0, -1};
  const std::int64_t credits[] = {1, 0, 0};
  const std::int64_t minutes[] = {-1, -1, 0};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(rows[i + 1].source, QStringLiteral("report"));
    EXPECT_EQ(rows[i + 1].claimed, claims[i]);
    EXPECT_EQ(rows[i + 1].credit, credits[i]);
    EXPECT_EQ(rows[i + 1].minutes, minutes[i]);
    EXPECT_EQ(rows[i + 1].host, QStringLiteral("local"));
    EXPECT_EQ(rows[i + 1].time, now_);
  }
}

TEST_F(Spending, GoesOnAcrossARestartOfTheServer) {
  Limit({{kCredit, 2}});
  // The connection is a new one each time, and what was handed is forgotten.
  SpendTwoMinutes(this, [this] {
    Open();
    ++connection_.id;
  });
  EXPECT_EQ(Credit(), 0);
  At(300);
  Start();
  EXPECT_EQ(Fetch(), kSpentCredit) << "what is spent stays spent";
}

TEST_F(Spending, IsCountedAsUseOfItsDay) {
  Limit({{kCredit, 2}});
  SpendTwoMinutes(this);
  now_ = now_.addDays(1);
  Limit({{kCredit, 5}});
  At(500);
  Start();
  (void)Fetch();
  At(501);
  Report(4);
  const QVariantMap expected{{QStringLiteral("5-3-2009"), qlonglong{2}},
                             {QStringLiteral("6-3-2009"), qlonglong{1}}};
  EXPECT_EQ(household_->UsageByDay(connection_, anna_, game_), expected);
  Open();
  EXPECT_EQ(household_->UsageByDay(connection_, anna_, game_), expected);
}

TEST_F(HouseholdTest, GraceIsUseWithoutBeingTakenFromTheCredit) {
  Limit({{kEnabled, true}});
  Start();
  EXPECT_EQ(Fetch(), 0);
  At(1);
  Report(0);
  const std::vector<LedgerRow> rows = Ledger();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].source, QStringLiteral("grace"));
  EXPECT_EQ(rows[0].minutes, 0);
  EXPECT_EQ(household_->UsageByDay(connection_, anna_, game_).value(QStringLiteral("5-3-2009")), 1);
}

TEST_F(HouseholdTest, ALostReportIsARowOfItsOwn) {
  Limit({{kCredit, 9}});
  Start();
  (void)Fetch();
  At(61);
  EXPECT_EQ(Fetch(), 8);
  EXPECT_EQ(Ledger().back().source, QStringLiteral("fetch"));
  EXPECT_FALSE(Ledger().back().claimed);
}

TEST_F(HouseholdTest, ARebootForgetsWhatWasPaid) {
  Limit({{kCredit, 9}});
  At(1000);
  Start();
  (void)Fetch();
  At(1001);
  Report(8);
  bootId_ = QStringLiteral("boot-2");
  Open();
  At(30);
  Start();
  EXPECT_EQ(Fetch(), 8);
  At(31);
  Report(7);
  EXPECT_EQ(Credit(), 7) << "a paidUntil of the old boot would make this minute free";
}

TEST_F(HouseholdTest, TwoHostsCostTwoMinutesAMinute) {
  Limit({{kCredit, 9}});
  for (const std::uint64_t id : {11, 12}) {
    connection_ = {id, QStringLiteral("192.0.2.%1").arg(id), std::nullopt};
    Start();
    (void)Fetch();
  }
  At(1);
  for (const std::uint64_t id : {11, 12}) {
    connection_ = {id, QStringLiteral("192.0.2.%1").arg(id), std::nullopt};
    Report(8);
  }
  EXPECT_EQ(Credit(), 7);
}

// --- What agents are told.

TEST_F(HouseholdTest, AnAnswerHasAllTheKeys) {
  Limit({{kStart, 480}, {kCredit, 30}});
  const QVariantMap answer = FetchAll();
  EXPECT_EQ(answer.size(), 16);
  EXPECT_EQ(answer.value(kEnabled), true);
  EXPECT_EQ(answer.value(kStart).toInt(), 480);
  EXPECT_EQ(answer.value(kCredit).toInt(), 30);
}

TEST_F(HouseholdTest, AnUnknownIdentifierIsAnsweredAsNotWatched) {
  const QVariantMap answer =
      household_->FetchLimits(connection_, anna_, QStringLiteral("org.example.other"));
  EXPECT_EQ(answer.size(), 16);
  EXPECT_EQ(answer.value(kEnabled), false);
  EXPECT_EQ(answer.value(QStringLiteral("WD stop")).toInt(), 1439);
  household_->CreditReport(connection_, anna_, QStringLiteral("org.example.other"), 5);
  EXPECT_TRUE(Ledger().empty());
}

TEST_F(HouseholdTest, TheGlobalSettingsCarryTheQuotaAlone) {
  const QString settings = QLatin1String(kGlobalSettingsIdentifier);
  const QVariantMap none = household_->FetchLimits(connection_, anna_, settings);
  EXPECT_EQ(none.keys(), QStringList({QStringLiteral("DQ Enabled"), QStringLiteral("DQ Value")}));
  Limit({{QStringLiteral("DQ Enabled"), true}, {QStringLiteral("DQ Value"), 700}}, settings, anna_);
  const QVariantMap some = household_->FetchLimits(connection_, anna_, settings);
  EXPECT_EQ(some.size(), 2);
  EXPECT_EQ(some.value(QStringLiteral("DQ Value")).toInt(), 700);
  At(600);
  EXPECT_EQ(household_->FetchLimits(connection_, anna_, settings), some);
  EXPECT_TRUE(Ledger().empty());
}

TEST_F(HouseholdTest, AUserOfThisMachineSpeaksForNobodyElse) {
  Limit({{kCredit, 9}});
  const QVariantMap mine = FetchAll();
  connection_ = {2, QStringLiteral("local"), 1002};
  EXPECT_EQ(FetchAll().value(kEnabled), false);
  EXPECT_TRUE(household_->LimitsOfUser(connection_, anna_).isEmpty());
  EXPECT_TRUE(household_->UsageByDay(connection_, anna_, game_).isEmpty());
  Start();
  Report(0);
  connection_ = {3, QStringLiteral("local"), 0};
  EXPECT_EQ(FetchAll().value(kEnabled), false) << "root is a user like the others here";
  Report(0);
  EXPECT_EQ(Credit(), 9);
  connection_ = {4, QStringLiteral("local"), 1001};
  EXPECT_EQ(FetchAll(), mine);
  EXPECT_EQ(household_->LimitsOfUser(connection_, anna_).value(game_).toMap(), mine);
}

TEST_F(HouseholdTest, EachConnectionClaimsAgainstWhatItWasHanded) {
  Limit({{kCredit, 9}});
  Start();
  (void)Fetch();
  household_->ConnectionClosed(connection_.id);
  At(1);
  Report(9);
  EXPECT_EQ(Credit(), 8) << "what a closed connection was handed no longer counts";
}

TEST_F(HouseholdTest, AFloodOfEmptyReportsDoesNotFillTheLedger) {
  Limit({{kCredit, 9}});
  Start();
  (void)Fetch();
  for (int i = 0; i < 500; ++i) Report(9);
  EXPECT_EQ(Ledger().size(), 2u);
}

TEST_F(HouseholdTest, HostsAreBounded) {
  Limit({{kCredit, 1000000}});
  for (std::size_t i = 0; i < 3 * kMaxLanesPerIdentifier; ++i) {
    At(static_cast<int>(i));
    connection_ = {i + 1, QStringLiteral("2001:db8::%1").arg(i), std::nullopt};
    Start();
  }
  household_.reset();
  EXPECT_EQ(Store::Open(StorePath())->Load(bootId_).lanes.size(), kMaxLanesPerIdentifier);
}

// --- The disk.

// While it lives, files of this process cannot grow.
class FullDisk {
 public:
  FullDisk() {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit nothing = before_;
    nothing.rlim_cur = 0;
    setrlimit(RLIMIT_FSIZE, &nothing);
  }
  ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

TEST_F(HouseholdTest, AgentsAreAnsweredWhileTheDiskFailsAndNothingIsLost) {
  Limit({{kCredit, 9}});
  Start();
  EXPECT_EQ(Fetch(), 9);
  {
    const FullDisk full;
    for (int minute = 0; minute < 3; ++minute) {
      At(1 + 60 * minute);
      Report(8 - minute);
      EXPECT_EQ(Fetch(), 8 - minute);
    }
    EXPECT_EQ(household_->SetCredit(root_, anna_, game_, 50, QStringLiteral("a"), {}).status,
              AdminStatus::StoreFailed);
    EXPECT_EQ(household_->ChangeLimits(root_, anna_, game_, {{kStart, 1}}, 1).status,
              AdminStatus::StoreFailed);
    EXPECT_EQ(Credit(), 6);
    EXPECT_EQ(log_.size(), 1u);
  }
  At(200);
  household_->WriteWhatWaits();
  EXPECT_EQ(log_.size(), 2u);
  Open();
  EXPECT_EQ(Credit(), 6);
  EXPECT_EQ(household_->Limits(anna_, game_)->limits.weekDayStart, 0);
  EXPECT_EQ(Ledger().size(), 4u);
}

// --- Administration.

TEST_F(HouseholdTest, ANewLimitIsOnUnlessItSaysOtherwise) {
  Limit({{kStart, 480}});
  EXPECT_EQ(household_->Limits(anna_, game_)->limits.enabled, 1);
  const QString other = QStringLiteral("org.example.other");
  Limit({{kEnabled, false}}, other, anna_);
  EXPECT_EQ(household_->Limits(anna_, other)->limits.enabled, 0);
  EXPECT_EQ(household_->Users(), std::vector<QString>{anna_});
  EXPECT_EQ(household_->Limits(anna_).size(), 2u);
}

TEST_F(HouseholdTest, TheRevisionCountsChangesOfTheLimitsOnly) {
  Limit({{kStart, 480}, {kCredit, 5}});
  EXPECT_EQ(household_->Limits(anna_, game_)->revision, 1u);
  Limit({{kCredit, 6}});
  EXPECT_EQ(household_->Limits(anna_, game_)->revision, 1u);
  Limit({{kStart, 481}});
  EXPECT_EQ(household_->Limits(anna_, game_)->revision, 2u);
  Open();
  EXPECT_EQ(household_->Limits(anna_, game_)->revision, 2u);
  EXPECT_EQ(household_->Limits(anna_, game_)->limits.weekDayStart, 481);
  EXPECT_EQ(Credit(), 6);
}

TEST_F(HouseholdTest, ARefusedChangeChangesNothing) {
  Limit({{kStart, 480}, {kCredit, 5}});
  const auto change = [this](const QVariantMap& keys, std::uint64_t revision) {
    return household_->ChangeLimits(root_, anna_, game_, keys, revision).status;
  };
  EXPECT_EQ(change({{kStart, 481}}, 0), AdminStatus::RevisionMismatch);
  EXPECT_EQ(change({{kStart, 481}}, 7), AdminStatus::RevisionMismatch);
  EXPECT_EQ(change({{kStart, 481}, {QStringLiteral("no such"), 1}}, 1), AdminStatus::UnknownKey);
  EXPECT_EQ(change({{kCredit, 12345}, {kStart, 481}}, 1), AdminStatus::BadValue);
  EXPECT_EQ(household_->ChangeLimits(root_, anna_, QStringLiteral("x"), {}, 3).status,
            AdminStatus::NotFound);
  EXPECT_EQ(household_->ChangeLimits(root_, QString(), game_, {}, 0).field, QStringLiteral("user"));
  EXPECT_EQ(household_->Limits(anna_, game_)->limits.weekDayStart, 480);
  EXPECT_EQ(Credit(), 5);
  EXPECT_EQ(Ledger().size(), 1u);
}

TEST_F(HouseholdTest, AnAdjustmentIsAppliedOnceForEachId) {
  Limit({{kEnabled, true}});
  const auto set = [this](std::int64_t minutes, const char* id) {
    return household_->SetCredit(root_, anna_, game_, minutes, QLatin1String(id),
                                 QStringLiteral("homework done"));
  };
  EXPECT_EQ(set(30, "a").entry->credit, 30);
  EXPECT_EQ(set(10, "b").entry->credit, 10);
  EXPECT_EQ(set(30, "a").entry->credit, 10) << "known, so only confirmed";
  EXPECT_EQ(set(31, "a").status, AdminStatus::IdReused);
  Open();
  EXPECT_EQ(set(30, "a").entry->credit, 10);
  EXPECT_EQ(set(31, "a").status, AdminStatus::IdReused);
  ASSERT_EQ(Ledger().size(), 2u);
  EXPECT_EQ(Ledger()[1].minutes, -20);
  EXPECT_EQ(Ledger()[1].reason, QStringLiteral("homework done"));
}

TEST_F(HouseholdTest, AnAdjustmentIsChecked) {
  Limit({{kEnabled, true}});
  const auto field = [this](std::int64_t minutes, const QString& id, const QString& reason) {
    return household_->SetCredit(root_, anna_, game_, minutes, id, reason).field;
  };
  EXPECT_EQ(field(12345, QStringLiteral("a"), {}), QStringLiteral("minutes"));
  EXPECT_EQ(field(-1, QStringLiteral("a"), {}), QStringLiteral("minutes"));
  EXPECT_EQ(field(2147483648, QStringLiteral("a"), {}), QStringLiteral("minutes"));
  EXPECT_EQ(field(1, QString(), {}), QStringLiteral("id"));
  EXPECT_EQ(field(1, QStringLiteral("a"), QStringLiteral("x\ny")), QStringLiteral("reason"));
  EXPECT_EQ(
      household_->SetCredit(root_, anna_, QStringLiteral("x"), 1, QStringLiteral("a"), {}).status,
      AdminStatus::NotFound);
  EXPECT_TRUE(Ledger().empty());
}

TEST_F(HouseholdTest, TheLedgerIsReadInPieces) {
  Limit({{kCredit, 1}});
  Limit({{kCredit, 2}});
  Limit({{kCredit, 3}}, game_, QStringLiteral("ben"));
  const auto rows = household_->Ledger(0, {}, {}, 2);
  ASSERT_EQ(rows.size(), 2u);
  const auto rest = household_->Ledger(rows.back().id, {}, {}, 2);
  ASSERT_EQ(rest.size(), 1u);
  EXPECT_EQ(rest[0].user, QStringLiteral("ben"));
  EXPECT_EQ(household_->Ledger(0, anna_, game_, 1000).size(), 2u);
  EXPECT_TRUE(household_->Ledger(0, anna_, QStringLiteral("x"), 1000).empty());
  EXPECT_TRUE(household_->Ledger(0, {}, {}, -5).empty());
}

}  // namespace
}  // namespace vardell::server
