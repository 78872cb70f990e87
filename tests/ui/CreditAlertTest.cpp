#include "ui/CreditAlert.h"

#include <gtest/gtest.h>

#include <QLocale>
#include <tuple>

#include "tests/support/FakeScreens.h"
#include "tests/support/QtEnvironment.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

WatchedApp Entry(const char* identifier, const char* displayName) {
  WatchedApp entry;
  entry.identifier = QLatin1String(identifier);
  entry.displayName = QString::fromUtf8(displayName);
  return entry;
}

TEST(CreditAlertTextTest, NamesTheApplicationOrTheSession) {
  const WatchedApp game = Entry("org.example.game", "Game <b>%2</b>");
  EXPECT_EQ(CreditAlertText(game, CreditAlertKind::Low),
            u"Game <b>%2</b>: 1 minute left. Please save your work now. In one "
            "minute Game <b>%2</b> will be closed."_s);
  const WatchedApp session = Entry("com.apple.loginwindow", "computer");
  EXPECT_EQ(CreditAlertText(session, CreditAlertKind::Disco),
            u"computer: your time is used up. When you click this message away, "
            "or in one minute at the latest, your session will be closed."_s);
  EXPECT_EQ(ShownName(Entry("COM.APPLE.LOGINWINDOW", "x")), u"x"_s);
}

TEST(CreditAlertTextTest, AnUnknownKindReadsAsLowAndNoStopAlertShowsIt) {
  const auto unknown = static_cast<CreditAlertKind>(9);
  const auto game = std::make_shared<WatchedApp>(Entry("org.example.game", "Game"));
  EXPECT_EQ(CreditAlertText(*game, unknown), CreditAlertText(*game, CreditAlertKind::Low));
  FakeScreens screens;
  ShowCreditAlert(game, unknown, {screens, {.dontFadeScreen = true}});  // hangs where it shows
  ShowCreditAlert(nullptr, CreditAlertKind::Low, {screens, {}});
  EXPECT_TRUE(screens.calls.empty());
}

TEST(CreditPanelKindTest, OnlyFiveMinutesTurnIntoTheLastOne) {
  using enum CreditAlertKind;
  const std::tuple<CreditAlertKind, std::int32_t, CreditAlertKind> kRows[] = {
      {DiscoIn5, 5, DiscoIn5},     {DiscoIn5, 2, DiscoIn5}, {DiscoIn5, 1, Low}, {DiscoIn5, -1, Low},
      {DiscoIn5, 12345, DiscoIn5}, {Low, 5, Low},           {Low, 12345, Low},  {Disco, 1, Disco}};
  for (const auto& [queued, credit, drawn] : kRows)
    EXPECT_EQ(CreditPanelKind(queued, credit), drawn) << credit;
}

TEST(CurfewAlertTextTest, TellsTheBoundaryInTheLocalesShortTime) {
  const std::tuple<const char*, const char*, bool, std::int32_t, const char*> kRows[] = {
      {"an evening in English", "en_US", false, 1200, "The time for it ended at 8:00 PM today."},
      {"an evening in German", "de_DE", false, 1200, "The time for it ended at 20:00 today."},
      {"a morning", "de_DE", true, 485, "You can start at 08:05 today."},
      {"the end of the day is midnight", "de_DE", false, 1440, "ended at 00:00 today."},
      {"beyond the day it starts anew", "de_DE", false, 1441, "ended at 00:01 today."},
      {"before the day it ends the last", "de_DE", true, -1, "start at 23:59 today."},
  };
  const WatchedApp game = Entry("org.example.game", "Game");
  for (const auto& [what, locale, isEarly, minutes, part] : kRows) {
    QLocale::setDefault(QLocale(QLatin1String(locale)));
    QString text = CurfewAlertText(isEarly, game, minutes);
    text.replace(QChar(0x202f), QLatin1Char(' '));
    EXPECT_TRUE(text.startsWith(u"Game: it is too "_s)) << what;
    EXPECT_TRUE(text.contains(QLatin1String(part))) << what << ": " << text.toStdString();
  }
  QLocale::setDefault(QLocale::system());
}

}  // namespace
}  // namespace vardell
