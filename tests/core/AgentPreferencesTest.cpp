#include "core/AgentPreferences.h"

#include <QDir>
#include <QTemporaryDir>

#include "Common Sources/PropertyListFiles.h"
#include "tests/core/AgentFixture.h"

namespace vardell::test {
namespace {

struct SwitchRow {
  const char* behaviour;
  QVariant stored;
  bool on;
  bool found;
};

TEST(BooleanPreference, IsTheIntegerValueOfAString) {
  const SwitchRow rows[] = {
      {"absent", {}, false, false},
      {"one", QStringLiteral("1"), true, true},
      {"zero", QStringLiteral("0"), false, true},
      {"negative", QStringLiteral("-3"), true, true},
      {"digits before other text", QStringLiteral("7up"), true, true},
      {"words", QStringLiteral("yes"), false, true},
      {"empty", QString(QLatin1String("")), false, true},
      {"a number counts as absent", 1, false, false},
      {"a boolean counts as absent", true, false, false},
  };
  for (const SwitchRow& row : rows) {
    FakePreferences preferences;
    if (row.stored.isValid()) preferences.values[QStringLiteral("key")] = row.stored;
    bool found = !row.found;
    EXPECT_EQ(row.on, ReadBooleanPreference(preferences, QStringLiteral("key"), &found))
        << row.behaviour;
    EXPECT_EQ(row.found, found) << row.behaviour;
  }
}

TEST(ConfigurationPreference, IsASignedByteOrNothing) {
  const std::pair<QVariant, int> rows[] = {{{}, 0},      {1, 1},     {2, 2},
                                           {-128, -128}, {127, 127}, {128, 0},
                                           {257, 0},     {2.9, 2},   {QStringLiteral("2"), 0},
                                           {true, 0},    {1e300, 0}};
  for (const auto& [stored, expected] : rows) {
    FakePreferences preferences;
    if (stored.isValid()) preferences.values[QStringLiteral("Configuration")] = stored;
    EXPECT_EQ(expected, ReadConfiguration(preferences)) << stored.toString().toStdString();
  }
}

class PreferencesTest : public AgentFixture {};

TEST_F(PreferencesTest, LastMinuteCreditAloneIsOnWhenAbsent) {
  LoadPreferences(agent);
  EXPECT_TRUE(agent.lastMinuteCredit);
  EXPECT_FALSE(agent.autoHideAlerts || agent.playAlertsSound || agent.dontFadeScreen);

  preferences.values = {{QStringLiteral("Last Minute Credit"), QStringLiteral("0")},
                        {QStringLiteral("Auto Hide Alerts"), QStringLiteral("1")},
                        {QStringLiteral("Play Alerts Sound"), QStringLiteral("1")},
                        {QStringLiteral("Don't fade screen"), QStringLiteral("1")}};
  LoadPreferences(agent);
  EXPECT_FALSE(agent.lastMinuteCredit);
  EXPECT_TRUE(agent.autoHideAlerts && agent.playAlertsSound && agent.dontFadeScreen);
}

TEST(NonWatchedAccount, IsComparedWithoutRegardToCase) {
  QTemporaryDir root;
  QDir(root.path()).mkpath(QStringLiteral("Library/Preferences"));
  qputenv("VARDELL_TEST_ROOT", root.path().toUtf8());
  const QString path =
      root.path() + QStringLiteral("/Library/Preferences/com.brenwick.vardell5.plist");
  EXPECT_FALSE(IsNonWatchedAccount(QStringLiteral("anna")));

  const std::pair<QVariant, bool> rows[] = {{QStringLiteral("anna"), true},
                                            {QStringLiteral("ANNA"), true},
                                            {QStringLiteral("ann"), false},
                                            {QString(QLatin1String("")), false},
                                            {1, false}};
  for (const auto& [stored, expected] : rows) {
    ASSERT_EQ(0, WritePropertyListToPath(
                     QVariantMap{{QStringLiteral("Non-watched account"), stored}}, path, true));
    EXPECT_EQ(expected, IsNonWatchedAccount(QStringLiteral("anna")))
        << stored.toString().toStdString();
  }
  qunsetenv("VARDELL_TEST_ROOT");
}

}  // namespace
}  // namespace vardell::test
