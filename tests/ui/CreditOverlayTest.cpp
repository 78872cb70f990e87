// The overlay's line, and its window on a real X server, with and without a compositor.
#include "ui/CreditOverlay.h"

#include <gtest/gtest.h>

#include <QAccessible>
#include <QMouseEvent>
#include <QScreen>
#include <QTranslator>

#include "platform/Processes.h"
#include "platform/linux/XcbScreens.h"
#include "tests/support/QtEnvironment.h"
#include "tests/support/SecondClient.h"
#include "ui/MessagePanel.h"

namespace vardell {
namespace {

using namespace test;
using namespace Qt::StringLiterals;

constexpr std::int32_t kFront = 7;

// Short formats, so that a line shows what it was made of.
class Formats : public QTranslator {
 public:
  Formats() { QCoreApplication::installTranslator(this); }
  bool isEmpty() const override { return false; }
  QString translate(const char*, const char* key, const char*, int) const override {
    return formats_.value(key);
  }

 private:
  QHash<QByteArray, QString> formats_{{"Credit format", u"%1: %2 left"_s},
                                      {"Disk Quota Credit format", u"disk %1"_s},
                                      {"Not watching", u"none"_s}};
};

WatchedAppPtr Entry(std::int32_t pid, const char* identifier, const char* name, std::int32_t credit,
                    std::uint32_t ticks = 0, bool lastMinute = false) {
  const LimitsRecord limits{.credit = credit};
  return std::make_shared<WatchedApp>(
      WatchedApp{limits, pid, QLatin1String(identifier), QLatin1String(name), ticks, lastMinute});
}

TEST(CreditOverlayLineTest, TellsOfTheEntryInFrontAndOfTheQuota) {
  const Formats formats;
  const auto game = Entry(kFront, "org.game", "Game", 65);
  const auto spent = Entry(kFront, "org.game", "Game", kSpentCredit);
  const auto session = Entry(3, kLoginWindowIdentifier, "computer", 30);
  const auto settings = Entry(0, kGlobalSettingsIdentifier, "Disk", 10, 130);
  const struct {
    const char* behaviour;
    WatchedAppTable table;
    std::int16_t quota;
    const char* line;
    std::int32_t front = kFront;
  } kRows[] = {
      {"minutes", {session, game}, 0, "Game: 1 hour 5 minutes left"},
      {"last match", {game, Entry(kFront, "b", "%1 %2", 3), session}, 0, "%1 %2: 3 minutes left"},
      {"else the session", {Entry(8, "b", "B", 9), session}, 0, "computer: 30 minutes left"},
      {"no process in front", {settings, session}, 0, "computer: 30 minutes left", 0},
      {"nothing", {settings}, 0, "none"},
      {"last minute", {Entry(kFront, "b", "B", 1, 75, true)}, 0, "B: 45 seconds left"},
      {"its first second", {Entry(kFront, "b", "B", 1, 120, true)}, 0, "B: 0 second left"},
      {"spent", {spent, session}, 0, ""},
      {"spent, with the blank", {spent}, -1, " disk 2 minutes"},
      {"over the quota", {game}, -1, "Game: 1 hour 5 minutes left disk 2 minutes"},
      {"the quota's last minute", {settings}, -2, "disk 50 seconds"},
      {"without settings", {}, -2, "disk 0 second"},
      {"none left", {settings}, -3, "disk 0 minute"},
      {"beyond", {settings}, -4, "disk -1 minute"},
      {"within the quota", {game}, 5, "Game: 1 hour 5 minutes left"},
  };
  for (const auto& row : kRows)
    EXPECT_EQ(CreditOverlayLine(row.table, row.front, row.quota), QLatin1String(row.line))
        << row.behaviour;
}

// A white window over the whole screen that counts its clicks.
class Beneath : public QWidget {
 public:
  Beneath() { setPalette(Qt::white); }
  std::vector<QPoint> clicks;

 protected:
  void mousePressEvent(QMouseEvent* event) override { clicks.push_back(event->pos()); }
};

class CreditOverlayTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(ShowFullScreen()) << "active: " << beneath.isActiveWindow()
                                  << ", pixel: " << qPrintable(Pixel(1270, 790).name());
  }

  bool ShowFullScreen() {
    beneath.showFullScreen();
    return WaitUntil([this] {
      if (!beneath.isActiveWindow()) beneath.activateWindow();
      return beneath.isActiveWindow() && Pixel(1270, 790) == Qt::white;
    });
  }
  static QImage Strip() {
    return QGuiApplication::primaryScreen()->grabWindow(0, 0, 0, 1280, 60).toImage();
  }
  static QColor Pixel(int x, int y) {
    return QGuiApplication::primaryScreen()->grabWindow(0, x, y, 1, 1).toImage().pixelColor(0, 0);
  }
  // The part of the picture that has blue letters.
  static QRect Letters(const QImage& picture) {
    QRect found;
    for (int y = 0; y < picture.height(); ++y) {
      for (int x = 0; x < picture.width(); ++x) {
        const QColor c = picture.pixelColor(x, y);
        if (c.blue() > 180 && c.red() < 100 && c.green() < 100) found |= QRect(x, y, 1, 1);
      }
    }
    return found;
  }
  static bool IsSeen() { return !Letters(Strip()).isEmpty(); }
  bool ShowAndWait() {
    ShowCreditOverlay(*overlay);
    return WaitUntil(IsSeen);
  }
  void Ticks(int count) {
    for (int i = 0; i < count; ++i) CountDownCreditOverlay(*overlay);
  }

  const Formats formats;
  WatchedAppPtr game = Entry(kFront, "org.game", "Game", 65);
  WatchedAppTable table{game};
  XcbScreens screens;
  test::SecondClient other;
  Beneath beneath;
  std::unique_ptr<CreditOverlay> overlay =
      CreateCreditOverlay({table, [] { return kFront; }, [] { return std::int16_t{0}; }}, screens);
};

TEST_F(CreditOverlayTest, LiesOverAFullScreenWindowAndLeavesItFocusAndClicks) {
  EXPECT_FALSE(IsSeen());
  ASSERT_TRUE(ShowAndWait());
  Tool({"xdotool", "mousemove", "640", "8", "click", "1"});
  EXPECT_TRUE(WaitUntil([&] { return beneath.clicks == std::vector{QPoint(640, 8)}; }));
  EXPECT_TRUE(beneath.isActiveWindow());
  EXPECT_EQ(other.UnmanagedWindows().back(), QRect(0, 0, 1280, 800));
  EXPECT_EQ(Pixel(640, 60), Qt::white) << "beneath the strip";

  QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(overlay.get());
  EXPECT_EQ(accessible->role(), QAccessible::AlertMessage);
  EXPECT_EQ(accessible->text(QAccessible::Name), u"Game: 1 hour 5 minutes left"_s);
  game->limits.credit = 1;
  RedrawCreditOverlay(*overlay);
  EXPECT_EQ(accessible->text(QAccessible::Name), u"Game: 1 minute left"_s);
}

TEST_F(CreditOverlayTest, LiesOverAFullScreenWindowThatComesLaterFromTheNextTickOn) {
  beneath.showNormal();
  ASSERT_TRUE(WaitUntil([] { return Pixel(1270, 790) != Qt::white; }));
  ASSERT_TRUE(ShowAndWait());
  ASSERT_TRUE(ShowFullScreen());
  Ticks(1);
  EXPECT_TRUE(WaitUntil(IsSeen)) << "of a program that asks the window manager";
  Beneath unmanaged;
  unmanaged.setWindowFlags(Qt::X11BypassWindowManagerHint);
  unmanaged.setGeometry(0, 0, 1280, 800);
  unmanaged.show();
  ASSERT_TRUE(WaitUntil([] { return !IsSeen(); }));
  Ticks(1);
  EXPECT_TRUE(WaitUntil(IsSeen)) << "of one that does not";
  unmanaged.raise();
  ASSERT_TRUE(WaitUntil([] { return !IsSeen(); }));
  EXPECT_TRUE(ShowAndWait()) << "asked for";
}

TEST_F(CreditOverlayTest, IsOverAPanelOnlyWhereItIsAskedForWhileThatIsUp) {
  ASSERT_TRUE(ShowAndWait());
  MessagePanel panel(
      PanelUse::Lock, kMessageColour, [] { return QString(); }, screens, nullptr);
  panel.Appear();
  ASSERT_TRUE(WaitUntil([] { return !IsSeen(); }));
  Ticks(1);
  EXPECT_FALSE(WaitUntil(IsSeen, 200ms));
  EXPECT_TRUE(ShowAndWait());
}

TEST_F(CreditOverlayTest, IsHiddenAtTheFourthTickWhateverIsAskedMeanwhile) {
  const auto before = other.UnmanagedWindows();
  for (int time = 0; time < 2; ++time) {
    Ticks(2);  // while it is hidden
    ASSERT_TRUE(ShowAndWait());
    Ticks(3);
    ShowCreditOverlay(*overlay);
    EXPECT_TRUE(overlay->isVisible());
    EXPECT_EQ(Pixel(640, 400), Qt::white) << "cut to the strip, also the second time";
    Ticks(1);
    EXPECT_FALSE(overlay->isVisible());
    EXPECT_TRUE(WaitUntil([&] { return other.UnmanagedWindows() == before && !IsSeen(); }));
  }
}

TEST_F(CreditOverlayTest, FadesWhereTheScreenIsComposedAndComesBackWhenAskedFor) {
  Program compositor({"xcompmgr"}, {});
  ASSERT_TRUE(WaitUntil([&] { return screens.IsComposited(); }));
  const auto isFading = [&] { return overlay->isVisible() && overlay->windowOpacity() < 1; };
  ASSERT_TRUE(ShowAndWait());
  Ticks(4);
  ASSERT_TRUE(WaitUntil(isFading));
  Ticks(4);
  ShowCreditOverlay(*overlay);
  EXPECT_FALSE(WaitUntil([&] { return !overlay->isVisible(); }, 600ms)) << "faded on";
  EXPECT_EQ(overlay->windowOpacity(), 1);
  Ticks(3);
  EXPECT_FALSE(WaitUntil(isFading, 100ms)) << "the count did not start anew";
  Ticks(1);
  EXPECT_TRUE(WaitUntil([&] { return !overlay->isVisible(); }));
  ASSERT_TRUE(ShowAndWait()) << "opaque again";
  compositor.End(SIGTERM);
  ASSERT_TRUE(WaitUntil([&] { return !screens.IsComposited(); }));
  EXPECT_TRUE(WaitUntil([] { return IsSeen() && Pixel(640, 400) == Qt::white; }));
  HideCreditOverlay(*overlay);
  EXPECT_FALSE(overlay->isVisible()) << "at once";
}

TEST_F(CreditOverlayTest, FollowsTheMainDisplay) {
  ASSERT_TRUE(ShowAndWait());
  Tool({"xrandr", "--setmonitor", "*left", "640/100x800/100+0+0", "screen"});
  EXPECT_TRUE(WaitUntil([&] { return other.UnmanagedWindows().back() == QRect(0, 0, 640, 800); }));
  Tool({"xrandr", "--delmonitor", "left"});
  EXPECT_TRUE(WaitUntil([&] { return other.UnmanagedWindows().back() == QRect(0, 0, 1280, 800); }));
}

TEST_F(CreditOverlayTest, IsReadableAndWholeInAnyPaletteFontAndLength) {
  const QString longName = QString(QLatin1String("Very Long Name ")).repeated(30);
  const QColor light(240, 240, 240);
  const QColor dark(40, 40, 44);
  const std::tuple<const char*, QString, int, QColor> kRows[] = {
      {"light", u"Game"_s, 9, light},
      {"a light plate on a dark bar", u"Game"_s, 9, dark},
      {"a long name", longName, 9, dark},
      {"line breaks", u"a\n\tb\u2028"_s.repeated(200), 20, light},
      {"large letters", longName, 40, light},
      {"too large ones", u"Game"_s, 90, dark}};
  for (const auto& [behaviour, name, points, bar] : kRows) {
    SCOPED_TRACE(behaviour);
    game->displayName = name;
    overlay->setFont(QFont(QApplication::font().family(), points));
    overlay->setPalette(bar);
    ASSERT_TRUE(ShowAndWait());
    const QImage picture = QGuiApplication::primaryScreen()->grabWindow(0).toImage();
    const QRect letters = Letters(picture);
    EXPECT_GE(letters.left(), 10);
    EXPECT_LE(letters.right(), 1270);
    EXPECT_GE(letters.top(), 3);
    EXPECT_EQ(picture.pixelColor(2, letters.bottom()), bar) << "cut below";
    EXPECT_GE(picture.pixelColor(letters.left() - 3, letters.center().y()).lightness(), 188)
        << "blue on a dark ground";
    HideCreditOverlay(*overlay);
    ASSERT_TRUE(WaitUntil([] { return !IsSeen(); }));
  }
}

}  // namespace
}  // namespace vardell
