// What the Household makes of a limit's options; what credit pays without hours is in
// HouseholdModelTest.
#include <QJsonDocument>

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
  static QVariant Thursdays(const QByteArray& start, const QByteArray& stop) {
    const QByteArray window = R"([{"start":")" + start + R"(","stop":")" + stop + R"("}])";
    const QByteArray schedule = R"({"days":)" + WeekOf("thursday", window) + "}";
    return QJsonDocument::fromJson(schedule).toVariant();
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

TEST_F(HouseholdOptions, WhatIsUnlimitedIsShownAsSuchAndHasItsHours) {
  Choose({{QStringLiteral("unlimited"), true}}, {{kCredit, 2}});
  EXPECT_EQ(Begin(), kUnlimitedCredit);
  const QVariantMap shown = household_->LimitsOfUser(connection_, anna_).value(game_).toMap();
  EXPECT_EQ(shown.value(kCredit), kUnlimitedCredit);
  const auto agents = household_->Agents([](const QString&) { return true; });
  EXPECT_TRUE(agents.at(0).applications.at(0).unlimited);
  Choose("schedule", Thursdays("15:00", "18:10"));
  EXPECT_EQ(Begin(), 10) << "but within its hours";
  Choose({{QStringLiteral("unlimited"), false}});
  EXPECT_EQ(Begin(), 2) << "which cap no credit that ends before";
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
  Pass(760);
  Choose(QVariantMap(), {{kCredit, 0}});
  EXPECT_EQ(Begin(), kSpentCredit);
  Report(0);
  EXPECT_EQ(Used(anna_), 10) << "nor is there a minute of grace";
  Choose(QVariantMap(), {{kCredit, 190}});
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

TEST_F(HouseholdOptions, EachHostOfASharedAccountIsShownItsOwnAndItsKeysAreTheLimits) {
  Choose({{QStringLiteral("scope"), QStringLiteral("user@host")}}, {{kCredit, 30}});
  Be(1);
  EXPECT_EQ(Begin(), 30);
  EXPECT_EQ(Minute(1, 30), 29);
  for (int time = 0; time < 2; ++time, Open()) {
    EXPECT_EQ(household_->LimitsOfUser(connection_, anna_).value(game_).toMap().value(kCredit), 29);
    EXPECT_FALSE(household_->UsageByDay(connection_, anna_, game_).isEmpty());
  }
  EXPECT_EQ(Ledger()[1].source, QStringLiteral("scope"));
  const auto direct = household_->ChangeLimits(root_, Own(1), game_, {{kStart, 5}}, 1);
  EXPECT_EQ(direct.status, AdminStatus::BadValue);
  Choose({{QStringLiteral("unlimited"), true}}, {{kStart, 480}});
  EXPECT_EQ(household_->Limits(Own(1), game_)->limits.weekDayStart, 480);
  EXPECT_TRUE(household_->Limits(Own(1), game_)->options.unlimited);
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
