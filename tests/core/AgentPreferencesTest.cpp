#include "core/AgentPreferences.h"

#include <QDir>
#include <QTemporaryDir>

#include "Common Sources/PropertyListFiles.h"
#include "tests/core/AgentFixture.h"

namespace vardell::test {
namespace {

using namespace Qt::StringLiterals;

TEST(BooleanPreference, IsTheIntegerValueOfAString) {
  const std::tuple<const char*, QVariant, bool, bool> rows[] = {
      {"absent", {}, false, false},
      {"one", u"1"_s, true, true},
      {"zero", u"0"_s, false, true},
      {"negative", u"-3"_s, true, true},
      {"digits before other text", u"7up"_s, true, true},
      {"words", u"yes"_s, false, true},
      {"empty", QString(QLatin1String("")), false, true},
      {"a number counts as absent", 1, false, false},
      {"a boolean counts as absent", true, false, false},
  };
  for (const auto& [behaviour, stored, on, isFound] : rows) {
    FakePreferences preferences;
    if (stored.isValid()) preferences.values[u"key"_s] = stored;
    bool found = !isFound;
    EXPECT_EQ(on, ReadBooleanPreference(preferences, u"key"_s, &found)) << behaviour;
    EXPECT_EQ(isFound, found) << behaviour;
  }
}

TEST(ConfigurationPreference, IsASignedByteOrNothing) {
  const std::pair<QVariant, int> rows[] = {{{}, 0},     {1, 1},    {2, 2},    {-128, -128},
                                           {127, 127},  {128, 0},  {257, 0},  {2.9, 2},
                                           {u"2"_s, 0}, {true, 0}, {1e300, 0}};
  for (const auto& [stored, expected] : rows) {
    FakePreferences preferences;
    if (stored.isValid()) preferences.values[u"Configuration"_s] = stored;
    EXPECT_EQ(expected, ReadConfiguration(preferences)) << stored.toString().toStdString();
  }
}

class PreferencesTest : public AgentFixture {};

TEST_F(PreferencesTest, LastMinuteCreditAloneIsOnWhenAbsent) {
  LoadPreferences(agent);
  EXPECT_TRUE(agent.lastMinuteCredit);
  EXPECT_FALSE(agent.autoHideAlerts || agent.playAlertsSound || agent.dontFadeScreen);

  preferences.values = {{u"Last Minute Credit"_s, u"0"_s},
                        {u"Auto Hide Alerts"_s, u"1"_s},
                        {u"Play Alerts Sound"_s, u"1"_s},
                        {u"Don't fade screen"_s, u"1"_s}};
  LoadPreferences(agent);
  EXPECT_FALSE(agent.lastMinuteCredit);
  EXPECT_TRUE(agent.autoHideAlerts && agent.playAlertsSound && agent.dontFadeScreen);
}

TEST(NonWatchedAccount, IsComparedWithoutRegardToCase) {
  QTemporaryDir root;
  QDir(root.path()).mkpath(u"Library/Preferences"_s);
  qputenv("VARDELL_TEST_ROOT", root.path().toUtf8());
  const QString path = root.path() + u"/Library/Preferences/com.brenwick.vardell5.plist"_s;
  EXPECT_FALSE(IsNonWatchedAccount(u"anna"_s));

  const std::pair<QVariant, bool> rows[] = {{u"anna"_s, true},
                                            {u"ANNA"_s, true},
                                            {u"ann"_s, false},
                                            {QString(QLatin1String("")), false},
                                            {1, false}};
  for (const auto& [stored, expected] : rows) {
    ASSERT_EQ(0,
              WritePropertyListToPath(QVariantMap{{u"Non-watched account"_s, stored}}, path, true));
    EXPECT_EQ(expected, IsNonWatchedAccount(u"anna"_s)) << stored.toString().toStdString();
  }
  qunsetenv("VARDELL_TEST_ROOT");
}

}  // namespace
}  // namespace vardell::test
