// The status item in an X system tray, clicked by another program.
#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <QWidget>

#include "Common Sources/TestHooks.h"
#include "platform/linux/LinuxStatusBar.h"
#include "tests/support/QtEnvironment.h"
#include "tests/support/SecondClient.h"
#include "ui/StatusItem.h"

namespace vardell {
namespace {

using namespace test;
using namespace Qt::StringLiterals;

// Qt's widget in the tray, where there is one.
QWidget* Icon() {
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (widget->objectName() == QLatin1String("QSystemTrayIconSys")) return widget;
  }
  return nullptr;
}

QPoint Centre(const QWidget& widget) {
  return widget.mapToGlobal(widget.rect().center());
}

class SystemTrayTest : public testing::Test {
 protected:
  // In the bottom right corner: a window that is in no tray is in the top left one.
  void StartTray() {
    tray = Program({"trayer", "--edge", "bottom", "--align", "right", "--widthtype", "request"},
                   {.output = "/dev/null"});
  }
  bool WaitForIcon() {
    return WaitUntil([] { return Icon() && Centre(*Icon()).y() > 700; });
  }
  // Nor may it be left on the desktop.
  bool WaitForNoIcon() {
    return WaitUntil([&] {
      for (const QRect& window : other.UnmanagedWindows()) {
        if (window.width() > 10) return false;
      }
      return Icon() == nullptr;
    });
  }

  // To its end: killed between press and release it would leave the button down.
  void Xdotool(std::vector<std::string> words) {
    words.insert(words.begin(), "xdotool");
    const Program xdotool(words, {});
    EXPECT_TRUE(WaitUntil([&] { return !xdotool.IsRunning(); }));
  }
  void Click(const QPoint& where, const char* button) {
    Xdotool({"mousemove", std::to_string(where.x()), std::to_string(where.y()), "click", button});
  }
  bool WaitForMenu(bool open) {
    return WaitUntil([&] { return item->Menu().isVisible() == open; });
  }
  void ExpectAClickOpensTheMenu(const char* button = "1") {
    const int before = opened;
    Click(Centre(*Icon()), button);
    ASSERT_TRUE(WaitForMenu(true)) << "button " << button;
    EXPECT_EQ(opened, before + 1);
    Xdotool({"key", "Escape"});
    ASSERT_TRUE(WaitForMenu(false));
  }

  test::SecondClient other;
  Program tray;
  LinuxStatusBar bar;
  int opened = 0;
  int locked = 0;
  std::unique_ptr<StatusItem> item =
      CreateStatusItem({bar, [this] { ++opened; }, [this] { ++locked; }});
};

TEST_F(SystemTrayTest, AClickOnTheItemInALateTrayOpensItsMenu) {
  StartTray();
  ASSERT_TRUE(WaitForIcon());
  ExpectAClickOpensTheMenu("1");
  ExpectAClickOpensTheMenu("3");
  Click(Centre(*Icon()), "1");
  ASSERT_TRUE(WaitForMenu(true));
  const QMenu& menu = item->Menu();
  Click(menu.mapToGlobal(menu.actionGeometry(menu.actions().last()).center()), "1");
  EXPECT_TRUE(WaitForMenu(false));
  EXPECT_EQ(locked, 1);
}

TEST_F(SystemTrayTest, TheItemComesBackWithTheTrayUnlessItIsToggledOff) {
  ToggleStatusItem(*item);
  StartTray();
  ASSERT_TRUE(WaitUntil([&] { return bar.IsKnown(); }));
  EXPECT_EQ(Icon(), nullptr);
  ToggleStatusItem(*item);
  for (const int signal : {SIGTERM, SIGKILL}) {
    ASSERT_TRUE(WaitForIcon());
    ExpectAClickOpensTheMenu();
    tray.End(signal);
    EXPECT_TRUE(WaitForNoIcon());
    StartTray();
  }
  ASSERT_TRUE(WaitForIcon());
  ToggleStatusItem(*item);
  EXPECT_TRUE(WaitForNoIcon());
  tray.End(SIGKILL);
  ToggleStatusItem(*item);
  StartTray();
  ASSERT_TRUE(WaitForIcon());
  ExpectAClickOpensTheMenu();
}

TEST_F(SystemTrayTest, ThePictureAlternatesBetweenTheFilesLockAndEye) {
  const QTemporaryDir root;
  qputenv("VARDELL_TEST_ROOT", root.path().toUtf8());
  if (TestRoot().isEmpty()) GTEST_SKIP() << "a build without test hooks";
  QPixmap red(22, 22);
  red.fill(Qt::red);
  ASSERT_TRUE(red.save(ProductPath(u"/lock.tiff"_s)));
  StartTray();
  ASSERT_TRUE(WaitForIcon());
  const auto shown = [] { return Icon()->grab().toImage().pixelColor(11, 11); };
  const QColor eye = shown();
  for (const QColor& expected : {QColor(Qt::red), eye, QColor(Qt::red)}) {
    ToggleStatusIcon(*item);
    EXPECT_EQ(shown(), expected);
  }
  ToggleStatusItem(*item);
  ToggleStatusItem(*item);
  ASSERT_TRUE(WaitForIcon());
  EXPECT_EQ(shown(), eye) << "a new item";
}

}  // namespace
}  // namespace vardell
