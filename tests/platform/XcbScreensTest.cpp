#include "platform/linux/XcbScreens.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QScreen>
#include <QWidget>

#include "tests/support/SecondClient.h"

namespace vardell {
namespace {

using test::Tool;
using test::WaitUntil;

// Monitors side by side on the 1280x800 screen; the first one is the primary.
class XcbScreensTest : public testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& name : monitors_) Tool({"xrandr", "--delmonitor", name});
    ASSERT_TRUE(WaitUntil([] { return QGuiApplication::screens().size() == 1; }));
  }
  void AddMonitor(const std::string& name, int x, int width) {
    const std::string size = std::to_string(width) + "/100x800/100+" + std::to_string(x) + "+0";
    Tool({"xrandr", "--setmonitor", monitors_.empty() ? "*" + name : name, size,
          monitors_.empty() ? "screen" : "none"});
    monitors_.push_back(name);
    const auto count = static_cast<qsizetype>(monitors_.size());
    ASSERT_TRUE(WaitUntil([&] { return QGuiApplication::screens().size() == count; })) << name;
  }
  bool WaitForCovers(const std::vector<QRect>& expected) {
    return WaitUntil([&] { return other.UnmanagedWindows() == expected; });
  }

  test::SecondClient other;
  XcbScreens screens;

 private:
  std::vector<std::string> monitors_;
};

TEST_F(XcbScreensTest, CoversTheOtherScreensAlsoThoseThatComeLater) {
  const std::vector<QRect> before = other.UnmanagedWindows();
  EXPECT_EQ(screens.MainDisplayBounds(), QRect(0, 0, 1280, 800));
  screens.CaptureSecondaryDisplays();
  EXPECT_TRUE(WaitForCovers(before)) << "with one screen";
  screens.ReleaseDisplays();
  AddMonitor("left", 0, 640);
  AddMonitor("middle", 640, 320);
  EXPECT_EQ(screens.MainDisplayBounds(), QRect(0, 0, 640, 800));
  std::vector<QRect> covered = before;
  screens.CaptureSecondaryDisplays();
  covered.push_back(QRect(640, 0, 320, 800));
  EXPECT_TRUE(WaitForCovers(covered));
  AddMonitor("right", 960, 320);
  covered.push_back(QRect(960, 0, 320, 800));
  EXPECT_TRUE(WaitForCovers(covered));
  screens.ReleaseDisplays();
  EXPECT_TRUE(WaitForCovers(before));
}

TEST_F(XcbScreensTest, InputIsTakenAfterAnotherProgramsMenuHasClosedUnlessGivenBack) {
  QWidget window(nullptr, Qt::X11BypassWindowManagerHint);
  window.show();
  test::SecondClient menu;
  for (const bool givenBack : {false, true}) {
    ASSERT_TRUE(menu.TakePointer());
    screens.SetSystemUIMode(SystemUIMode::ContentHidden, kUIOptionDisableProcessSwitch,
                            window.windowHandle());
    ASSERT_TRUE(WaitUntil([&] { return !other.CanTakeKeyboard(); }));
    if (givenBack) screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
    menu.ReleasePointer();
    const auto patience = std::chrono::milliseconds(givenBack ? 400 : 5000);
    EXPECT_EQ(WaitUntil([&] { return !other.CanTakePointer(); }, patience), !givenBack);
    screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
    EXPECT_TRUE(WaitUntil([&] { return other.CanTakePointer() && other.CanTakeKeyboard(); }));
  }
}

}  // namespace
}  // namespace vardell
