// The status item in an X system tray, clicked by another program.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QImage>
#include <QTemporaryDir>
#include <QWidget>

#include "Common Sources/TestHooks.h"
#include "platform/linux/LinuxStatusBar.h"
#include "tests/support/QtEnvironment.h"
#include "tests/support/SecondClient.h"
#include "ui/StatusItem.h"

namespace vardell {
namespace {

using test::Program;
using test::WaitUntil;

const auto* const kEnvironment =
    testing::AddGlobalTestEnvironment(new test::QtEnvironment<QApplication>);

// Qt's widget in the tray, where there is one.
QWidget* Icon() {
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (widget->objectName() == QLatin1String("QSystemTrayIconSys")) return widget;
  }
  return nullptr;
}

class SystemTrayTest : public testing::Test {
 protected:
  void TearDown() override {
    item.reset();
    EndTray(SIGTERM);
  }

  // In the bottom right corner: a window that is in no tray is in the top left one.
  void StartTray() {
    tray_ = Program({"trayer", "--edge", "bottom", "--align", "right", "--widthtype", "request",
                     "--height", "24"},
                    {.output = "/dev/null"});
  }
  void EndTray(int signal) {
    tray_.End(signal);
    EXPECT_TRUE(WaitUntil([&] { return !desktop->HasSelectionOwner("_NET_SYSTEM_TRAY_S0"); }));
  }
  bool WaitForIcon() {
    return WaitUntil([&] {
      return Icon() && Centre(*Icon()).y() > 700 && WindowAt(Centre(*Icon())) == Icon()->winId();
    });
  }
  bool WaitForNoIcon() {
    return WaitUntil([&] {
      for (const QRect& window : other.UnmanagedWindows()) {
        if (window.width() > 10) return false;
      }
      return Icon() == nullptr;
    });
  }

  // The window that a click there would reach.
  xcb_window_t WindowAt(const QPoint& where) {
    xcb_connection_t* c = desktop->Connection();
    const auto x = static_cast<std::int16_t>(where.x());
    const auto y = static_cast<std::int16_t>(where.y());
    for (xcb_window_t window = desktop->Root();;) {
      const XcbReply<xcb_translate_coordinates_reply_t> reply(xcb_translate_coordinates_reply(
          c, xcb_translate_coordinates(c, desktop->Root(), window, x, y), nullptr));
      if (!reply || reply->child == XCB_WINDOW_NONE) return window;
      window = reply->child;
    }
  }
  static QPoint Centre(const QWidget& widget) { return widget.mapToGlobal(widget.rect().center()); }
  // To its end: killed between press and release it would leave the button down.
  void Type(const std::vector<std::string>& command) {
    const Program xdotool(command, {});
    EXPECT_TRUE(WaitUntil([&] { return !xdotool.IsRunning(); }));
  }
  void Click(const QPoint& where, const char* button) {
    Type({"xdotool", "mousemove", std::to_string(where.x()), std::to_string(where.y()), "click",
          button});
  }
  bool WaitForMenu(bool open) {
    return WaitUntil([&] { return item->Menu().isVisible() == open; });
  }
  void ExpectAClickOpensTheMenu(const char* button) {
    const int before = opened;
    Click(Centre(*Icon()), button);
    ASSERT_TRUE(WaitForMenu(true)) << "button " << button;
    EXPECT_EQ(opened, before + 1);
    Type({"xdotool", "key", "Escape"});
    ASSERT_TRUE(WaitForMenu(false));
  }

  std::optional<XcbDesktop> desktop = XcbDesktop::Open();
  test::SecondClient other;
  LinuxStatusBar bar;
  int opened = 0;
  int locked = 0;
  std::unique_ptr<StatusItem> item =
      CreateStatusItem({bar, [this] { ++opened; }, [this] { ++locked; }});

 private:
  Program tray_;
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
  EXPECT_TRUE(WaitUntil([&] { return locked == 1; }));
  EXPECT_TRUE(WaitForMenu(false));
}

TEST_F(SystemTrayTest, TheItemComesBackWithTheTray) {
  StartTray();
  ASSERT_TRUE(WaitForIcon());
  for (const int signal : {SIGTERM, SIGKILL}) {
    EndTray(signal);
    EXPECT_TRUE(WaitForNoIcon()) << "it would stand on the desktop";
    StartTray();
    ASSERT_TRUE(WaitForIcon());
    ExpectAClickOpensTheMenu("1");
  }
}

TEST_F(SystemTrayTest, AnItemToggledOffStaysOffWhateverTheTrayDoes) {
  ToggleStatusItem(*item);
  StartTray();
  ASSERT_TRUE(WaitUntil([&] { return bar.IsKnown(); }));
  ToggleStatusItem(*item);
  ASSERT_TRUE(WaitForIcon());
  ToggleStatusItem(*item);
  EXPECT_TRUE(WaitForNoIcon());

  EndTray(SIGKILL);
  ToggleStatusItem(*item);
  StartTray();
  ASSERT_TRUE(WaitForIcon());
  ExpectAClickOpensTheMenu("1");
}

TEST_F(SystemTrayTest, ThePictureAlternatesBetweenTheFilesLockAndEye) {
  const QTemporaryDir root;
  qputenv("VARDELL_TEST_ROOT", root.path().toUtf8());
  if (TestRoot().isEmpty()) GTEST_SKIP() << "a build without test hooks";
  QImage red(22, 22, QImage::Format_RGB32);
  red.fill(Qt::red);
  ASSERT_TRUE(red.save(ProductPath(QStringLiteral("/lock.tiff"))));
  StartTray();
  ASSERT_TRUE(WaitForIcon());
  const auto shown = [] { return Icon()->grab().toImage().pixelColor(11, 11); };
  const QColor eye = shown();
  ToggleStatusIcon(*item);
  EXPECT_EQ(shown(), QColor(Qt::red));
  ToggleStatusIcon(*item);
  EXPECT_EQ(shown(), eye) << "where there is no such file, the one that is compiled in";
  ToggleStatusIcon(*item);
  EXPECT_EQ(shown(), QColor(Qt::red));
  ToggleStatusItem(*item);
  ToggleStatusItem(*item);
  ASSERT_TRUE(WaitForIcon());
  EXPECT_EQ(shown(), eye);
  qunsetenv("VARDELL_TEST_ROOT");
}

}  // namespace
}  // namespace vardell
