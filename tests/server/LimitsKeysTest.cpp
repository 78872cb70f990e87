#include "server/LimitsKeys.h"

#include <gtest/gtest.h>

#include <limits>

#include "limits/WatchedApps.h"

namespace vardell::server {
namespace {

const QString kGame = QStringLiteral("org.example.game");

std::optional<KeyProblem> Try(const char* key, const QVariant& value, LimitsChange* change,
                              const QString& identifier = kGame) {
  return ApplyLimitsKeys(identifier, DefaultLimits(), {{QLatin1String(key), value}}, change);
}

TEST(LimitsKeysTest, RefusesWhatIsNoLimit) {
  const struct {
    const char* behaviour;
    const char* key;
    QVariant value;
    bool unknownKey = false;
  } rows[] = {
      {"a key in other letters", "wd start", 480, true},
      {"a text for a number", "WD start", QStringLiteral("480")},
      {"a boolean for a number", "DQ Value", true},
      {"a number for a boolean", "Enabled", 1},
      {"half a minute", "WD start", 480.5},
      {"no number at all", "WE stop", std::numeric_limits<double>::quiet_NaN()},
      {"nothing", "WE stop", QVariant()},
      {"a start at the day's end", "WD start", 1440},
      {"a stop after the day's end", "WE stop", 1441},
      {"a stop before the day", "WD stop", -1},
      {"the credit that means spent", "Credit", 12345},
      {"a coefficient between minutes and hours", "AutoUpdateCoeff", 59},
      {"an odd week-end coefficient", "WE Coeff", 2},
      {"a quota beyond 31 bits", "DQ Value", 4e9},
      {"a time that is none", "NextAutoUpdate", QStringLiteral("tomorrow")},
      {"an endless time", "NextAutoUpdate", std::numeric_limits<double>::infinity()},
  };
  for (const auto& row : rows) {
    LimitsChange change;
    change.limits.weekDayStart = 77;
    const auto problem = Try(row.key, row.value, &change);
    SCOPED_TRACE(row.behaviour);
    ASSERT_TRUE(problem);
    EXPECT_EQ(problem->unknownKey, row.unknownKey);
    EXPECT_EQ(problem->field, QLatin1String(row.key));
    EXPECT_FALSE(problem->message.isEmpty());
    EXPECT_EQ(change.limits.weekDayStart, 77);
  }
}

TEST(LimitsKeysTest, TakesTheBoundsAndKeepsWhatIsNotNamed) {
  LimitsRecord before = DefaultLimits();
  before.weekDayStop = 600;
  LimitsChange change;
  const QVariantMap keys{{QStringLiteral("WD start"), 1439},
                         {QStringLiteral("WE stop"), 1440.0},
                         {QStringLiteral("AutoUpdateCoeff"), 60},
                         {QStringLiteral("DQ Value"), 2147483647}};
  EXPECT_FALSE(ApplyLimitsKeys(kGame, before, keys, &change));
  EXPECT_EQ(change.limits.weekDayStart, 1439);
  EXPECT_EQ(change.limits.weekDayStop, 600);
  EXPECT_EQ(change.limits.weekEndStop, 1440);
  EXPECT_EQ(change.limits.topUpCoefficient, 60);
  EXPECT_EQ(change.limits.diskQuotaValue, 2147483647);
  EXPECT_FALSE(change.credit) << "a change without a credit leaves it alone";
  EXPECT_FALSE(Try("Credit", 12344, &change));
  EXPECT_EQ(change.credit, 12344);

  const QString settings = QLatin1String(kGlobalSettingsIdentifier);  // hold only the quota
  EXPECT_FALSE(Try("DQ Value", 500, &change, settings));
  EXPECT_TRUE(Try("WD start", 500, &change, settings));
  EXPECT_TRUE(Try("Credit", 5, &change, settings));
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
