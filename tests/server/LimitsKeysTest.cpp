#include "server/LimitsKeys.h"

#include <gtest/gtest.h>

#include <limits>

#include "limits/WatchedApps.h"

namespace vardell::server {
namespace {

const QString kGame = QStringLiteral("org.example.game");

std::optional<KeyProblem> Try(const QString& key, const QVariant& value, LimitsChange* change,
                              const QString& identifier = kGame) {
  return ApplyLimitsKeys(identifier, DefaultLimits(), {{key, value}}, change);
}

struct Refused {
  const char* behaviour;
  const char* key;
  QVariant value;
  bool unknownKey = false;
};

TEST(LimitsKeysTest, RefusesWhatIsNoLimit) {
  const Refused rows[] = {
      {"an unknown key", "WD begin", 480, true},
      {"a key in other letters", "wd start", 480, true},
      {"a text for a number", "WD start", QStringLiteral("480")},
      {"a boolean for a number", "DQ Value", true},
      {"a number for a boolean", "Enabled", 1},
      {"a text for a boolean", "DQ Enabled", QStringLiteral("true")},
      {"half a minute", "WD start", 480.5},
      {"no number at all", "WE stop", std::numeric_limits<double>::quiet_NaN()},
      {"nothing", "WE stop", QVariant()},
      {"a start at the day's end", "WD start", 1440},
      {"a week-end start before the day", "WE start", -1},
      {"a stop after the day's end", "WE stop", 1441},
      {"a stop before the day", "WD stop", -1},
      {"the credit that means spent", "Credit", 12345},
      {"a negative credit", "Credit", -1},
      {"a credit beyond 31 bits", "Credit", qlonglong{2147483648}},
      {"a coefficient between minutes and hours", "AutoUpdateCoeff", 59},
      {"no coefficient", "AutoUpdateCoeff", 0},
      {"an odd week-end coefficient", "WE Coeff", 2},
      {"a negative top-up", "AutoUpdateValue", -1},
      {"a negative quota", "DQ Value", -1},
      {"a quota beyond 31 bits", "DQ Value", 4e9},
      {"a time that is none", "NextAutoUpdate", QStringLiteral("tomorrow")},
      {"an endless time", "NextAutoUpdate", std::numeric_limits<double>::infinity()},
  };
  for (const Refused& row : rows) {
    LimitsChange change;
    change.limits.weekDayStart = 77;
    const auto problem = Try(QLatin1String(row.key), row.value, &change);
    ASSERT_TRUE(problem) << row.behaviour;
    EXPECT_EQ(problem->unknownKey, row.unknownKey) << row.behaviour;
    EXPECT_EQ(problem->field, QLatin1String(row.key)) << row.behaviour;
    EXPECT_FALSE(problem->message.isEmpty()) << row.behaviour;
    EXPECT_EQ(change.limits.weekDayStart, 77) << row.behaviour;
  }
}

TEST(LimitsKeysTest, TakesTheBounds) {
  LimitsChange change;
  EXPECT_FALSE(Try(QStringLiteral("WD start"), 1439, &change));
  EXPECT_EQ(change.limits.weekDayStart, 1439);
  EXPECT_FALSE(Try(QStringLiteral("WE stop"), 1440.0, &change));
  EXPECT_EQ(change.limits.weekEndStop, 1440);
  EXPECT_FALSE(Try(QStringLiteral("Credit"), 2147483647, &change));
  EXPECT_EQ(change.credit, 2147483647);
  EXPECT_FALSE(Try(QStringLiteral("Credit"), 12344, &change));
  EXPECT_EQ(change.credit, 12344);
  EXPECT_FALSE(Try(QStringLiteral("AutoUpdateCoeff"), 60, &change));
  EXPECT_EQ(change.limits.topUpCoefficient, 60);
  EXPECT_FALSE(change.credit) << "a change without a credit leaves it alone";
}

TEST(LimitsKeysTest, KeepsWhatIsNotNamed) {
  LimitsRecord before = DefaultLimits();
  before.weekEndStart = 600;
  before.enabled = 1;
  LimitsChange change;
  ASSERT_FALSE(ApplyLimitsKeys(kGame, before, {{QStringLiteral("WD stop"), 0}}, &change));
  EXPECT_EQ(change.limits.weekDayStop, 0);
  EXPECT_EQ(change.limits.weekEndStart, 600);
  EXPECT_EQ(change.limits.weekEndStop, 1439);
  EXPECT_EQ(change.limits.enabled, 1);
}

TEST(LimitsKeysTest, TheGlobalSettingsHoldOnlyTheQuota) {
  const QString settings = QLatin1String(kGlobalSettingsIdentifier);
  LimitsChange change;
  EXPECT_FALSE(Try(QStringLiteral("DQ Value"), 500, &change, settings));
  EXPECT_EQ(change.limits.diskQuotaValue, 500);
  EXPECT_TRUE(Try(QStringLiteral("WD start"), 500, &change, settings));
  EXPECT_TRUE(Try(QStringLiteral("Credit"), 5, &change, settings));
}

TEST(LimitsKeysTest, NamesAreBounded) {
  EXPECT_FALSE(NameProblem(QStringLiteral("org.example.Ünïcode app")));
  EXPECT_FALSE(NameProblem(QString(1024, QLatin1Char('a'))));
  EXPECT_TRUE(NameProblem(QString()));
  EXPECT_TRUE(NameProblem(QString(1025, QLatin1Char('a'))));
  EXPECT_TRUE(NameProblem(QString(513, QChar(0xe9)))) << "the bytes count, not the characters";
  EXPECT_TRUE(NameProblem(QStringLiteral("a\nb")));
  EXPECT_TRUE(NameProblem(QString(QChar(0xd800))));
}

}  // namespace
}  // namespace vardell::server
