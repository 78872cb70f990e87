// A Household over a real store in a folder of its own, with clocks that the test moves.
#pragma once

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <memory>
#include <vector>

#include "server/Household.h"
#include "server/Store.h"

namespace vardell::server {

// The days of a schedule that has hours on one of them alone, sorted.
inline QByteArray WeekOf(const QByteArray& day, const QByteArray& windows) {
  QByteArray week;
  for (const char* one :
       {"friday", "monday", "saturday", "sunday", "thursday", "tuesday", "wednesday"}) {
    week +=
        (week.isEmpty() ? "{\"" : ",\"") + QByteArray(one) + "\":" + (day == one ? windows : "[]");
  }
  return week + '}';
}

class HouseholdFixture : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(folder_.isValid());
    Open();
  }

  void Open() {
    household_.reset();
    Clocks clocks;
    clocks.sinceBoot = [this] { return sinceBoot_; };
    clocks.bootId = bootId_;
    clocks.now = [this] {
      ++timesAsked_;
      return now_;
    };
    clocks.zone = [this] { return zone_; };
    clocks.isSet = [this] { return isClockSet_; };
    HouseholdHooks hooks;
    hooks.userOfUid = [](std::uint32_t uid) -> std::optional<QString> {
      if (uid == 1001) return QStringLiteral("anna");
      if (uid == 1002) return QStringLiteral("ben");
      return std::nullopt;
    };
    hooks.log = [this](const QString& line) { log_.push_back(line); };
    household_ = std::make_unique<Household>(OpenStore(StorePath()), clocks, hooks);
  }

  QString StorePath() const { return folder_.filePath(QStringLiteral("store.sqlite")); }

  void Limit(const QVariantMap& keys, const QString& identifier, const QString& user) {
    const auto before = household_->Limits(user, identifier);
    const auto result =
        household_->ChangeLimits(root_, user, identifier, keys, before ? before->revision : 0);
    ASSERT_EQ(result.status, AdminStatus::Ok) << qPrintable(result.message);
  }
  void Limit(const QVariantMap& keys) { Limit(keys, game_, anna_); }

  void At(int second) { sinceBoot_ = std::chrono::seconds(second); }
  // At `second`.
  void Launch(int second) {
    At(second);
    Start();
  }
  void Report(int second, std::int32_t claimed) {
    At(second);
    Report(claimed);
  }
  void Start() { household_->ApplicationStarted(connection_, anna_, game_); }
  void Report(std::int32_t claimed) {
    household_->CreditReport(connection_, anna_, game_, claimed);
  }
  QVariantMap FetchAll() { return household_->FetchLimits(connection_, anna_, game_); }
  int Fetch() { return FetchAll().value(QStringLiteral("Credit")).toInt(); }
  std::int64_t Credit() const { return household_->Limits(anna_, game_)->credit; }
  std::vector<LedgerRow> Ledger() const { return household_->Ledger(0, {}, {}, 1000).value(); }

  const QString anna_ = QStringLiteral("anna");
  const QString game_ = QStringLiteral("org.example.game");
  const Actor root_{0, QStringLiteral("uid 0 (root)")};
  AgentConnection connection_{1, QStringLiteral("local"), 1001};
  std::chrono::milliseconds sinceBoot_{0};
  QDateTime now_{QDate(2009, 3, 5), QTime(18, 0), Qt::OffsetFromUTC, 3600};
  QTimeZone zone_{3600};
  bool isClockSet_ = false;  // no top-ups, then
  int timesAsked_ = 0;
  QString bootId_ = QStringLiteral("boot-1");
  std::vector<QString> log_;
  QTemporaryDir folder_;
  std::unique_ptr<Household> household_;
};

}  // namespace vardell::server
