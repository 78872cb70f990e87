#include <QTimeZone>

#include "link/LimitsRecord.h"
#include "server/HouseholdRestore.h"
#include "tests/server/FullDisk.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {
namespace {

const QString kCredit = QStringLiteral("Credit");
const QString kValue = QStringLiteral("AutoUpdateValue");
const QString kNext = QStringLiteral("NextAutoUpdate");

// An hour a day at six in Madrid, two on Saturday and Sunday, from Monday, the 25th of March 2024
// on; in the night to the 31st the clocks are set forward. It is the Sunday before, ten minutes are
// left.
class HouseholdTopUpsTest : public HouseholdFixture {
 protected:
  void SetUp() override {
    zone_ = QTimeZone("Europe/Madrid");
    isClockSet_ = true;
    Jump("2024-03-24T20:00");
    HouseholdFixture::SetUp();
    Limit({{kCredit, 10},
           {kValue, 60},
           {QStringLiteral("WE Value"), 2},
           {QStringLiteral("WE Coeff"), 60},
           {kNext, Absolute("2024-03-25T06:00")}});
    ASSERT_EQ(Given(), "");
  }

  QDateTime Local(const char* time) const {
    const QDateTime plain = QDateTime::fromString(QLatin1String(time), Qt::ISODate);
    return QDateTime(plain.date(), plain.time(), zone_);
  }
  double Absolute(const char* time) const {
    return static_cast<double>(Local(time).toSecsSinceEpoch() - 978'307'200);
  }
  // The clock on the wall shows that time now.
  void Jump(const char* time) { now_ = Local(time); }
  void Pass(const char* time) {
    sinceBoot_ += std::chrono::milliseconds(now_.msecsTo(Local(time)));
    Jump(time);
  }
  void Roll(const QVariantMap& options) {
    const auto before = household_->Limits(anna_, game_);
    ASSERT_EQ(household_->ChangeLimits(root_, anna_, game_, {}, before->revision, options).status,
              AdminStatus::Ok);
  }

  // The top-ups since this was asked last, "03-25 +50=60": their dates, changes and credits.
  std::string Given() {
    while (household_->TopUpDue()) continue;
    QStringList given;
    const std::vector<LedgerRow> rows = household_->Ledger(seen_, {}, {}, 1000).value();
    for (const LedgerRow& row : rows) {
      seen_ = row.id;
      if (row.source != QStringLiteral("top-up")) continue;
      EXPECT_EQ(row.actor, QStringLiteral("server"));
      EXPECT_TRUE(row.reason.startsWith(QStringLiteral("top-up of 2"))) << qPrintable(row.reason);
      given.append(QStringLiteral("%1 %2%3=%4")
                       .arg(row.reason.right(5), row.minutes < 0 ? QString() : QStringLiteral("+"))
                       .arg(row.minutes)
                       .arg(row.credit));
    }
    return given.join(QStringLiteral(", ")).toStdString();
  }
  std::string GivenAt(const char* time) {
    Pass(time);
    return Given();
  }
  double Next() const { return household_->Limits(anna_, game_)->limits.nextTopUpTime; }
  std::uint64_t Revision() const { return household_->Limits(anna_, game_)->revision; }

  std::int64_t seen_ = 0;
};

TEST_F(HouseholdTopUpsTest, AWeekWithAnOutageRestartsAndTheChangeToSummerTime) {
  EXPECT_EQ(GivenAt("2024-03-25T05:59:59"), "");
  EXPECT_EQ(GivenAt("2024-03-25T06:00"), "03-25 +50=60");
  Open();
  EXPECT_EQ(GivenAt("2024-03-25T23:00"), "") << "once, and known after a restart";
  household_.reset();
  Pass("2024-03-29T12:00");
  Open();
  EXPECT_EQ(Given(), "03-29 +0=60") << "of those that were missed the latest";
  EXPECT_EQ(GivenAt("2024-03-30T06:00:09"), "03-30 +60=120");
  EXPECT_EQ(GivenAt("2024-03-31T05:59:59"), "");
  EXPECT_EQ(GivenAt("2024-03-31T06:00"), "03-31 +0=120");
  EXPECT_EQ(GivenAt("2024-04-01T07:00"), "04-01 -60=60");
  EXPECT_EQ(Next(), Absolute("2024-04-02T06:00"));
  EXPECT_EQ(Revision(), 1u) << "an administrator's ETag stays good";
  Open();
  EXPECT_EQ(Credit(), 60);
  EXPECT_EQ(Next(), Absolute("2024-04-02T06:00"));
}

TEST_F(HouseholdTopUpsTest, RollsOverUpToTheCapAlsoWhatWasMissed) {
  Roll({{QStringLiteral("rollOver"), true}, {QStringLiteral("rollOverCap"), 150}});
  EXPECT_EQ(Revision(), 2u);
  EXPECT_EQ(GivenAt("2024-03-25T06:00"), "03-25 +60=70");
  household_.reset();
  Pass("2024-03-28T12:00");
  Open();
  EXPECT_EQ(Given(), "03-26 +60=130, 03-27 +20=150, 03-28 +0=150");
  Open();
  EXPECT_EQ(Given(), "");
  EXPECT_EQ(Credit(), 150);
}

TEST_F(HouseholdTopUpsTest, AClockThatIsSetGivesNoDateTwiceAndBlocksNoOther) {
  EXPECT_EQ(GivenAt("2024-03-25T06:00"), "03-25 +50=60");
  Jump("2024-03-25T04:00");
  EXPECT_EQ(Given(), "");
  EXPECT_EQ(GivenAt("2024-03-25T06:00"), "") << "the same date a second time";
  Jump("2025-03-25T12:00");
  EXPECT_EQ(Given(), "03-25 +0=60");
  Jump("2024-03-25T12:00");
  EXPECT_EQ(Given(), "");
  EXPECT_EQ(GivenAt("2024-03-26T06:00"), "03-26 +0=60") << "not a year later";
  zone_ = QTimeZone("America/New_York");
  now_ = now_.toTimeZone(zone_);
  EXPECT_EQ(Given(), "");
  EXPECT_EQ(GivenAt("2024-03-27T05:59"), "");
  EXPECT_EQ(GivenAt("2024-03-27T06:00"), "03-27 +0=60") << "six o'clock where it is now";
}

TEST_F(HouseholdTopUpsTest, AnAdministratorsNextTimeIsWaitedForUnlessItHasPassed) {
  Limit({{kNext, Absolute("2024-03-25T15:00")}});
  EXPECT_EQ(Revision(), 2u);
  EXPECT_EQ(GivenAt("2024-03-25T14:59"), "");
  EXPECT_EQ(GivenAt("2024-03-25T15:00"), "03-25 +50=60");
  Limit({{kCredit, 5}, {kNext, Absolute("2024-03-25T15:00")}});
  EXPECT_EQ(Credit(), 5) << "this date has had its own";
  Pass("2024-03-26T08:00");
  const auto answer = household_->ChangeLimits(root_, anna_, game_,
                                               {{kNext, Absolute("2024-03-26T07:00")}}, Revision());
  EXPECT_EQ(answer.entry->credit, 60) << "at once";
  EXPECT_EQ(answer.entry->limits.nextTopUpTime, Absolute("2024-03-27T07:00"));
  EXPECT_EQ(Given(), "03-26 +55=60");
  Limit({{kNext, Absolute("2024-05-01T06:00")}});
  EXPECT_EQ(Next(), Absolute("2024-03-27T06:00")) << "far ahead is made anew";
  Limit({{kValue, 0}});
  EXPECT_EQ(GivenAt("2024-03-28T12:00"), "") << "a value of nothing is none";
  Limit({{kValue, 30}});
  EXPECT_EQ(Given(), "") << "and begins with the next time";
  EXPECT_EQ(GivenAt("2024-03-29T06:00"), "03-29 -30=30");
  Limit({{kNext, 0}});
  EXPECT_EQ(GivenAt("2024-03-30T12:00"), "");
  const auto entry = household_->Limits(anna_, game_);
  EXPECT_EQ(household_->RemoveLimits(root_, anna_, game_, entry->revision).status, AdminStatus::Ok);
  EXPECT_EQ(GivenAt("2024-03-31T12:00"), "");
}

TEST_F(HouseholdTopUpsTest, NothingIsGivenWhileNobodyKnowsTheTime) {
  isClockSet_ = false;
  sinceBoot_ = std::chrono::seconds(0);
  Jump("2024-03-26T12:00");
  EXPECT_EQ(Given(), "");
  EXPECT_EQ(GivenAt("2024-03-26T12:09:59"), "");
  EXPECT_EQ(GivenAt("2024-03-26T12:10"), "03-26 +50=60");
}

TEST_F(HouseholdTopUpsTest, WhoHasSpentEverythingGoesOnWithIt) {
  Limit({{kCredit, 0}, {kValue, 1}});
  Start();
  (void)Fetch();
  Report(1, -1);
  Start();
  EXPECT_EQ(Fetch(), kSpentCredit);
  EXPECT_EQ(GivenAt("2024-03-25T06:00"), "03-25 +1=1");
  Start();
  EXPECT_EQ(Fetch(), 1);
  sinceBoot_ += std::chrono::seconds(1);
  Report(0);
  Start();
  EXPECT_EQ(Fetch(), 0) << "its last minute is granted anew";
}

TEST_F(HouseholdTopUpsTest, NothingIsGivenThatTheDiskDoesNotKeep) {
  Roll({{QStringLiteral("rollOver"), true}});
  Start();
  EXPECT_EQ(Fetch(), 10);
  Pass("2024-03-27T12:00");
  {
    const FullDisk full;
    for (int time = 0; time < 3; ++time) {
      EXPECT_FALSE(household_->TopUpDue());
      EXPECT_EQ(Fetch(), 9 - time) << "agents go on";
      sinceBoot_ += std::chrono::minutes(1);
    }
    EXPECT_EQ(Credit(), 7);
    EXPECT_EQ(Next(), Absolute("2024-03-25T06:00"));
    EXPECT_LE(log_.size(), 3u) << "not at every time";
  }
  EXPECT_EQ(Given(), "03-25 +60=67, 03-26 +60=127, 03-27 +60=187");
  Open();
  EXPECT_EQ(Given(), "");
  EXPECT_EQ(Credit(), 187);
}

TEST_F(HouseholdTopUpsTest, ASchoolsTopUpsAfterARestoreComeInStepsAndOnceEach) {
  Backup backup;
  for (int number = 0; number < 1200; ++number) {
    LimitsEntry& entry = backup.limits.emplace_back(*household_->Limits(anna_, game_));
    entry.user = QStringLiteral("user%1").arg(number);
  }
  auto restore = household_->BeginRestore(root_, backup);
  while (!restore->Step()) continue;
  restore.reset();
  Pass("2024-03-25T06:00");
  int steps = 1;
  while (household_->TopUpDue()) ++steps;
  EXPECT_GT(steps, 2) << "agents are answered between them";
  Open();
  while (household_->TopUpDue()) continue;
  for (const LimitsEntry& entry : backup.limits) {
    ASSERT_EQ(household_->Limits(entry.user, game_)->credit, 60);
    ASSERT_EQ(household_->Ledger(0, entry.user, game_, 10)->size(), 2u) << "restored, topped up";
  }
}

}  // namespace
}  // namespace vardell::server
