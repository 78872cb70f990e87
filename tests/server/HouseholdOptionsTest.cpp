// What the Household makes of a limit's options.
#include "Common Sources/Caps.h"
#include "limits/WatchedApps.h"
#include "link/LimitsRecord.h"
#include "platform/Processes.h"
#include "server/CreditRules.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {
namespace {

const QString kCredit = QStringLiteral("Credit");
const QString kStart = QStringLiteral("WD start");

// It is a Thursday, six in the evening.
class HouseholdOptions : public HouseholdFixture {
 protected:
  void Choose(const QVariantMap& options, const QVariantMap& keys = {}) {
    const auto before = household_->Limits(anna_, game_);
    const auto result =
        household_->ChangeLimits(root_, anna_, game_, keys, before ? before->revision : 0, options);
    ASSERT_EQ(result.status, AdminStatus::Ok) << qPrintable(result.message);
  }
  void Choose(const char* option, const QVariant& value) {
    Choose({{QLatin1String(option), value}});
  }
  static QVariant Thursdays(const char* start, const char* stop) {
    QVariantMap days;
    for (const char* day : {"monday", "tuesday", "wednesday", "friday", "saturday", "sunday"}) {
      days.insert(QLatin1String(day), QVariantList());
    }
    days.insert(QStringLiteral("thursday"),
                QVariantList{QVariantMap{{QStringLiteral("start"), QLatin1String(start)},
                                         {QStringLiteral("stop"), QLatin1String(stop)}}});
    return QVariantMap{{QStringLiteral("days"), days}};
  }

  // Seconds since the beginning, by both clocks.
  void Pass(int second) {
    At(second);
    now_ = begin_.addSecs(second);
  }
  void Be(int host) {
    connection_ = {static_cast<std::uint64_t>(host), QStringLiteral("192.0.2.%1").arg(host), {}};
  }
  QString Own(int host) const { return QStringLiteral("anna@192.0.2.%1").arg(host); }
  std::int64_t CreditOf(const QString& user) const {
    const auto entry = household_->Limits(user, game_);
    return entry ? entry->credit : -1;
  }
  std::int64_t Used(const QString& user) const {
    const auto days = household_->Usage(user, game_);
    return days && days->count(now_.date()) != 0 ? days->at(now_.date()) : 0;
  }

  // As an agent launches an application, on this host.
  int Begin() {
    Start();
    return Fetch();
  }
  // As it begins a minute with that credit; what it is given then.
  int Minute(int second, int credit) {
    Pass(second);
    Report(credit - 1);
    return Fetch();
  }

  const QDateTime begin_ = now_;
};

TEST_F(HouseholdOptions, AMinuteOnTwoHostsCostsTwoOrWhereTheyShareItOne) {
  const struct {
    const char* parallel;
    std::int64_t left[3];
  } rows[] = {{"sum", {6, 5, 4}}, {"union", {7, 7, 6}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.parallel);
    Choose({{QStringLiteral("parallel"), QLatin1String(row.parallel)}}, {{kCredit, 9}});
    At(0);
    Be(1);
    int first = Begin();
    At(30);
    Be(2);
    int second = Begin();
    // The first one from 1 s to 121 s, the second one from 31 s on.
    for (const int minute : {0, 60}) {
      Be(1);
      first = Minute(1 + minute, first);
      Be(2);
      if (minute == 0) second = Minute(31, second);
    }
    EXPECT_EQ(Credit(), row.left[0]) << "the second one's minute lies within the first one's two";
    Open();
    ++connection_.id;
    second = Minute(91, second);
    EXPECT_EQ(Credit(), row.left[1]) << "so does its next one, and a restart does not forget it";
    (void)Minute(151, second);
    EXPECT_EQ(Credit(), row.left[2]) << "it pays alone";
    sinceBoot_ = {};
    bootId_ += QLatin1Char('x');
    Open();
  }
  EXPECT_EQ(Used(anna_), 5 + 3);
}

TEST_F(HouseholdOptions, HostsThatShareMinutesAreEachDeniedAndHeardForThemselves) {
  Choose({{QStringLiteral("parallel"), QStringLiteral("union")}}, {{kCredit, 9}});
  Be(1);
  EXPECT_EQ(Begin(), 9);
  EXPECT_EQ(Minute(1, 9), 8);
  Pass(500);
  Be(2);
  EXPECT_EQ(Fetch(), 8) << "who was never heard of owes nothing";
  Be(1);
  EXPECT_EQ(Fetch(), 7) << "a report was lost";
  Choose(QVariantMap(), {{kCredit, 0}});
  Report(-1);
  Be(2);
  EXPECT_EQ(Begin(), kSpentCredit);
  Be(1);
  EXPECT_EQ(Fetch(), 0) << "is told to those who start";
}

TEST_F(HouseholdOptions, WhatIsUnlimitedIsBookedAndNeverEnds) {
  Choose({{QStringLiteral("unlimited"), true}}, {{kCredit, 2}});
  EXPECT_EQ(Begin(), kUnlimitedCredit);
  for (int minute = 0; minute < 5; ++minute) {
    EXPECT_EQ(Minute(1 + 60 * minute, kUnlimitedCredit), kUnlimitedCredit);
    if (minute == 2) Open();
  }
  EXPECT_EQ(Credit(), 2);
  EXPECT_EQ(Used(anna_), 5);
  for (std::size_t row = 1; row < Ledger().size(); ++row) EXPECT_EQ(Ledger()[row].minutes, 0);
  const QVariantMap shown = household_->LimitsOfUser(connection_, anna_).value(game_).toMap();
  EXPECT_EQ(shown.value(kCredit), kUnlimitedCredit);
  const auto agents = household_->Agents([](const QString&) { return true; });
  EXPECT_TRUE(agents.at(0).applications.at(0).unlimited);
  Choose("unlimited", false);
  EXPECT_EQ(Fetch(), 2) << "and the minute that was handed before is not held against it";
  EXPECT_EQ(Minute(301, 2), 1);
}

TEST_F(HouseholdOptions, HoursEndWithTheUsualWarningsAndAreNeitherPaidForNorFree) {
  Choose({{QStringLiteral("schedule"), Thursdays("15:00", "18:10")}}, {{kCredit, 200}});
  int credit = Begin();
  EXPECT_EQ(credit, 10);
  std::string warned;
  for (int minute = 0; credit > 0; ++minute) {
    const int second = 1 + 60 * minute;
    if (credit == 5 || credit == 1) warned += std::to_string(second) + ' ';
    credit = Minute(second, credit);
  }
  EXPECT_EQ(warned, "301 541 ");
  EXPECT_EQ(Minute(601, 0), 0) << "the end, a second after the hours'";
  EXPECT_EQ(Credit(), 190);
  EXPECT_EQ(Used(anna_), 10);
  Pass(700);
  EXPECT_EQ(Begin(), kSpentCredit) << "a start outside of them";
  Report(0);
  Report(-1);
  EXPECT_EQ(Credit(), 190);
  Pass(86400 * 7 - 3600);
  EXPECT_EQ(Begin(), 70) << "next week, an hour earlier";
  Choose("schedule", QVariant::fromValue(nullptr));
  EXPECT_EQ(Begin(), 190);
}

TEST_F(HouseholdOptions, HoursThatAnAdministratorEndsAtOnceLetTheLastMinuteBePaid) {
  Choose(QVariantMap(), {{kCredit, 200}});
  int credit = Begin();
  credit = Minute(1, credit);
  Choose("schedule", Thursdays("15:00", "18:00"));
  credit = Minute(61, credit);
  EXPECT_EQ(credit, 0);
  // An agent that was not warned grants a minute.
  EXPECT_EQ(Minute(121, 1), 0);
  EXPECT_EQ(Minute(181, 0), 0);
  EXPECT_EQ(Credit(), 197);
}

TEST_F(HouseholdOptions, TheSessionsHoursAreThoseOfTodayInItsKeys) {
  const QString session = QLatin1String(kLoginWindowIdentifier);
  ASSERT_EQ(household_
                ->ChangeLimits(root_, anna_, session, {{kCredit, 200}, {kStart, 60}}, 0,
                               {{QStringLiteral("schedule"), Thursdays("15:00", "18:10")}})
                .status,
            AdminStatus::Ok);
  const auto fetch = [&] {
    const QVariantMap limits = household_->FetchLimits(connection_, anna_, session);
    return QStringLiteral("%1 %2-%3")
        .arg(limits.value(QStringLiteral("WD Curfew Enabled")).toBool())
        .arg(limits.value(kStart).toInt())
        .arg(limits.value(QStringLiteral("WD stop")).toInt())
        .toStdString();
  };
  EXPECT_EQ(fetch(), "1 900-1090");
  EXPECT_EQ(household_->FetchLimits(connection_, anna_, session).value(kCredit), 200)
      << "its credit is not what ends it";
  Pass(86400);
  EXPECT_EQ(fetch(), "1 0-0") << "made anew at each fetch";
  EXPECT_EQ(household_->Limits(anna_, session)->limits.weekDayStart, 60) << "the keys stay";
}

TEST_F(HouseholdOptions, EachHostOfASharedAccountHasCreditOfItsOwn) {
  Choose({{QStringLiteral("scope"), QStringLiteral("user@host")}}, {{kCredit, 30}});
  Be(1);
  EXPECT_EQ(Begin(), 30);
  EXPECT_EQ(Minute(1, 30), 29);
  Be(2);
  EXPECT_EQ(Begin(), 30);
  Be(1);
  EXPECT_EQ(Minute(61, 29), 28);
  for (const char* when : {"at once", "after a restart"}) {
    EXPECT_EQ(CreditOf(Own(1)), 28) << when;
    EXPECT_EQ(CreditOf(Own(2)), 30) << when;
    EXPECT_EQ(CreditOf(anna_), 30) << when;
    EXPECT_EQ(Used(Own(1)), 2) << when;
    EXPECT_EQ(household_->LimitsOfUser(connection_, anna_).value(game_).toMap().value(kCredit), 28);
    EXPECT_FALSE(household_->UsageByDay(connection_, anna_, game_).isEmpty());
    Open();
  }
  EXPECT_EQ(Ledger()[1].source, QStringLiteral("scope"));
  EXPECT_EQ(Ledger()[1].minutes, 30);

  const QString id = QStringLiteral("id");
  EXPECT_EQ(household_->AddCredit(root_, Own(2), game_, 5, id, {}).entry->credit, 35);
  Be(2);
  EXPECT_EQ(Begin(), 35);
  const auto direct = household_->ChangeLimits(root_, Own(1), game_, {{kStart, 5}}, 1);
  EXPECT_EQ(direct.status, AdminStatus::BadValue) << "its keys are the limit's";
  Choose({{QStringLiteral("unlimited"), true}}, {{kStart, 480}});
  for (const int host : {1, 2}) {
    EXPECT_EQ(household_->Limits(Own(host), game_)->limits.weekDayStart, 480);
    EXPECT_TRUE(household_->Limits(Own(host), game_)->options.unlimited);
  }
  EXPECT_EQ(Fetch(), kUnlimitedCredit);

  const auto entry = household_->Limits(anna_, game_);
  EXPECT_EQ(household_->RemoveLimits(root_, anna_, game_, entry->revision).status, AdminStatus::Ok);
  std::int64_t sum = 0;
  for (const LedgerRow& row : Ledger()) sum += row.minutes;
  EXPECT_EQ(sum, 0);
  EXPECT_TRUE(household_->Users().empty());
}

TEST_F(HouseholdOptions, EachHostsTopUpsAreItsOwnAndAnotherScopeTakesTheirAccountsBack) {
  isClockSet_ = true;
  const double tomorrow = static_cast<double>(begin_.addDays(1).toSecsSinceEpoch() - 978307200);
  Choose({{QStringLiteral("scope"), QStringLiteral("user@host")}},
         {{kCredit, 30},
          {QStringLiteral("AutoUpdateValue"), 60},
          {QStringLiteral("NextAutoUpdate"), tomorrow}});
  Be(1);
  EXPECT_EQ(Begin(), 30);
  EXPECT_EQ(Minute(1, 30), 29);
  Pass(86401);
  while (household_->TopUpDue()) continue;
  EXPECT_EQ(CreditOf(Own(1)), 60);
  EXPECT_EQ(CreditOf(anna_), 60);
  Be(2);
  EXPECT_EQ(Begin(), 60);
  while (household_->TopUpDue()) continue;
  Choose(QVariantMap(), {{kStart, 9}});
  const double next = household_->Limits(Own(2), game_)->limits.nextTopUpTime;
  EXPECT_EQ(next, tomorrow + 86400) << "its own plan";
  EXPECT_EQ(household_->Ledger(0, Own(2), game_, 9)->size(), 1u) << "not the same day's once more";
  Choose("scope", QStringLiteral("user"));
  EXPECT_EQ(household_->Users(), std::vector<QString>{anna_});
  EXPECT_EQ(Begin(), 60);
}

TEST_F(HouseholdOptions, HostsOfASharedAccountAreBoundedAndOneTooManyIsDenied) {
  Choose({{QStringLiteral("scope"), QStringLiteral("user@host")}}, {{kCredit, 30}});
  const int most = static_cast<int>(kMaxLanesPerIdentifier);
  for (int host = 1; host <= most; ++host) {
    Be(host);
    ASSERT_EQ(Begin(), 30) << host;
  }
  for (int time = 0; time < 3; ++time) {
    Be(most + 1 + time);
    EXPECT_EQ(Begin(), kSpentCredit);
    Report(0);
  }
  EXPECT_EQ(log_.size(), 1u);
  EXPECT_EQ(household_->Users().size(), kMaxLanesPerIdentifier + 1);
  const auto gone = household_->Limits(Own(1), game_);
  EXPECT_EQ(household_->RemoveLimits(root_, Own(1), game_, gone->revision).status, AdminStatus::Ok);
  EXPECT_EQ(Begin(), 30) << "in the place of one that is gone";
}

}  // namespace
}  // namespace vardell::server
