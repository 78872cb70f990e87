#include "server/Household.h"

#include "Common Sources/Caps.h"
#include "Common Sources/PropertyList.h"
#include "limits/WatchedApps.h"
#include "link/Frame.h"
#include "link/LimitsRecord.h"
#include "tests/server/FullDisk.h"
#include "tests/server/HouseholdFixture.h"
#include "tests/support/Waiting.h"

namespace vardell::server {
namespace {

const QString kCredit = QStringLiteral("Credit");
const QString kEnabled = QStringLiteral("Enabled");
const QString kStart = QStringLiteral("WD start");

// What a household that lives at random does not show; that is in HouseholdModelTest.
using HouseholdTest = HouseholdFixture;

TEST_F(HouseholdTest, UseIsInTheLedgerWithItsClaimAndCountedForItsDay) {
  Limit({{kCredit, 5}});
  for (const int day : {0, 1}) {
    now_ = now_.addDays(day);
    Launch(500 * day);
    (void)Fetch();
    Report(500 * day + 1, 4 - day);
  }
  const LedgerRow row = Ledger().at(1);
  EXPECT_EQ(Ledger()[0].actor, root_.name);
  EXPECT_EQ(row.source, QStringLiteral("report"));
  EXPECT_EQ(row.claimed, 4);
  EXPECT_EQ(row.host, QStringLiteral("local"));
  EXPECT_EQ(row.time, now_.addDays(-1));
  const QVariantMap expected{{QStringLiteral("5-3-2009"), qlonglong{1}},
                             {QStringLiteral("6-3-2009"), qlonglong{1}}};
  EXPECT_EQ(household_->UsageByDay(connection_, anna_, game_), expected);
}

// --- What agents are told.

TEST_F(HouseholdTest, TheGlobalSettingsCarryTheQuotaAlone) {
  const QString settings = QLatin1String(kGlobalSettingsIdentifier);
  const QVariantMap none = household_->FetchLimits(connection_, anna_, settings);
  EXPECT_EQ(none.keys(), QStringList({QStringLiteral("DQ Enabled"), QStringLiteral("DQ Value")}));
  Limit({{QStringLiteral("DQ Enabled"), true}, {QStringLiteral("DQ Value"), 700}}, settings, anna_);
  const QVariantMap some = household_->FetchLimits(connection_, anna_, settings);
  EXPECT_EQ(some.size(), 2);
  EXPECT_EQ(some.value(QStringLiteral("DQ Value")).toInt(), 700);
  EXPECT_TRUE(Ledger().empty());
}

TEST_F(HouseholdTest, AnAnswerKeptFromBeforeShowsTheCreditAndTheLimitsOfNow) {
  const QVariantMap changes[] = {{{kCredit, 100}},
                                 {{kCredit, 9}},
                                 {{kCredit, 2147483647}},
                                 {{kCredit, 0}, {kStart, 480}},
                                 {{kStart, 9}}};
  for (const QVariantMap& keys : changes) {
    Limit(keys);
    const QByteArray frame = household_->AnswerFetch(connection_, anna_, game_).frame;
    EXPECT_EQ(frame, BuildReply(WritePropertyListXml(FetchAll()).value_or("")));
  }
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

TEST_F(HouseholdTest, AFloodOfEmptyReportsDoesNotFillTheLedger) {
  Limit({{kCredit, 9}});
  Start();
  (void)Fetch();
  for (int i = 0; i < 500; ++i) Report(9);
  EXPECT_EQ(Ledger().size(), 2u);
  household_->ConnectionClosed(connection_.id);
  Report(1, 9);
  EXPECT_EQ(Credit(), 8) << "what a closed connection was handed no longer counts";
}

TEST_F(HouseholdTest, HostsAreBounded) {
  Limit({{kCredit, 1000000}});
  for (std::size_t i = 0; i < 3 * kMaxLanesPerIdentifier; ++i) {
    At(static_cast<int>(i));
    connection_ = {i + 1, QStringLiteral("2001:db8::%1").arg(i), std::nullopt};
    Start();
  }
  household_.reset();
  EXPECT_EQ(OpenStore(StorePath())->Load(bootId_).lanes.size(), kMaxLanesPerIdentifier);
}

// --- The disk.

TEST_F(HouseholdTest, AgentsAreAnsweredWhileTheDiskFailsAndNothingIsLost) {
  Limit({{kCredit, 9}});
  Start();
  EXPECT_EQ(Fetch(), 9);
  {
    const FullDisk full;
    for (int minute = 0; minute < 3; ++minute) {
      Report(1 + 60 * minute, 8 - minute);
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
  EXPECT_TRUE(
      test::WaitUntil([&] { return household_->TakeStored() == household_->LastChange(); }));
  EXPECT_EQ(log_.size(), 2u);
  Open();
  EXPECT_EQ(Credit(), 6);
  EXPECT_EQ(household_->Limits(anna_, game_)->limits.weekDayStart, 0);
  EXPECT_EQ(household_->Limits(anna_, game_)->revision, 1u);
  EXPECT_EQ(Ledger().size(), 4u);
}

}  // namespace
}  // namespace vardell::server
