#include <QTimeZone>

#include "server/HouseholdRestore.h"
#include "tests/server/FullDisk.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {
namespace {

// What years of top-ups by themselves do not meet; they are in HouseholdYearsTest. Here it is an
// hour a day at six in Madrid, from the 25th of March 2024 on. It is the day before, ten minutes
// are left.
class HouseholdTopUpsTest : public HouseholdFixture {
 protected:
  void SetUp() override {
    zone_ = QTimeZone("Europe/Madrid");
    isClockSet_ = true;
    now_ = Local("2024-03-24T20:00");
    HouseholdFixture::SetUp();
    Limit({{QStringLiteral("Credit"), 10},
           {QStringLiteral("AutoUpdateValue"), 60},
           {QStringLiteral("NextAutoUpdate"), first_}});
    ASSERT_EQ(Given(), "");
  }

  QDateTime Local(const char* time) const {
    const QDateTime plain = QDateTime::fromString(QLatin1String(time), Qt::ISODate);
    return QDateTime(plain.date(), plain.time(), zone_);
  }
  void Pass(const char* time) {
    sinceBoot_ += std::chrono::milliseconds(now_.msecsTo(Local(time)));
    now_ = Local(time);
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

  const double first_ = 733'035'600;  // 2024-03-25T06:00 there
  std::int64_t seen_ = 0;
};

TEST_F(HouseholdTopUpsTest, GivesThemAtTheTimeOfTheDayOfTheZoneWhereItIsNow) {
  EXPECT_EQ(GivenAt("2024-03-25T06:00"), "03-25 +50=60");
  zone_ = QTimeZone("Asia/Tokyo");
  now_ = now_.toTimeZone(zone_);
  EXPECT_EQ(Given(), "");
  EXPECT_EQ(GivenAt("2024-03-26T05:59"), "");
  EXPECT_EQ(GivenAt("2024-03-26T06:00"), "03-26 +0=60");
  EXPECT_EQ(household_->Limits(anna_, game_)->revision, 1u) << "an administrator's ETag stays good";
}

TEST_F(HouseholdTopUpsTest, NothingIsGivenThatTheDiskDoesNotKeep) {
  const QVariantMap rollOver{{QStringLiteral("rollOver"), true}};
  ASSERT_EQ(household_->ChangeLimits(root_, anna_, game_, {}, 1, rollOver).status, AdminStatus::Ok);
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
    EXPECT_EQ(household_->Limits(anna_, game_)->limits.nextTopUpTime, first_);
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
