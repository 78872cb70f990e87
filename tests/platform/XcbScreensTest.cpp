#include "platform/linux/XcbScreens.h"

#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QScreen>
#include <QWidget>
#include <algorithm>

#include "tests/support/SecondClient.h"

namespace vardell {
namespace {

using namespace test;

// Monitors side by side on the 1280x800 screen; the primary is the first one, and then the last
// whose name was given with a star.
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
    monitors_.push_back(name.substr(name.find_first_not_of('*')));
    const auto count = static_cast<qsizetype>(monitors_.size());
    ASSERT_TRUE(WaitUntil([&] { return QGuiApplication::screens().size() == count; })) << name;
  }
  void RemoveMonitor(const std::string& name) {
    std::erase(monitors_, name);
    Tool({"xrandr", "--delmonitor", name});
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

TEST_F(XcbScreensTest, CoversEveryOtherScreenAsTheyComeAndGo) {
  const std::vector<QRect> before = other.UnmanagedWindows();
  const auto covered = [&](std::vector<QRect> covers) {
    covers.insert(covers.begin(), before.begin(), before.end());
    return WaitForCovers(covers);
  };
  const QRect middle(640, 0, 320, 800);
  const QRect right(960, 0, 320, 800);
  EXPECT_EQ(screens.MainDisplayBounds(), QRect(0, 0, 1280, 800));
  screens.CaptureSecondaryDisplays();
  EXPECT_TRUE(covered({})) << "with one screen";
  screens.ReleaseDisplays();
  AddMonitor("left", 0, 640);
  AddMonitor("middle", 640, 320);
  EXPECT_EQ(screens.MainDisplayBounds(), QRect(0, 0, 640, 800));
  screens.CaptureSecondaryDisplays();
  EXPECT_TRUE(covered({middle}));
  AddMonitor("right", 960, 320);
  EXPECT_TRUE(covered({middle, right}));
  RemoveMonitor("middle");
  EXPECT_TRUE(covered({right}));
  AddMonitor("*middle", 640, 320);
  EXPECT_EQ(screens.MainDisplayBounds(), middle);
  EXPECT_TRUE(covered({right, QRect(0, 0, 640, 800)})) << "where the main display changes";
  screens.ReleaseDisplays();
  EXPECT_TRUE(covered({}));
}

TEST_F(XcbScreensTest, WhatAnotherProgramPutsAboveIsCoveredAgainButOurOwnIsNot) {
  QWidget window(nullptr, Qt::X11BypassWindowManagerHint);
  window.setGeometry(0, 0, 600, 500);
  window.show();
  QWidget strip(nullptr, Qt::X11BypassWindowManagerHint);
  strip.setGeometry(0, 0, 600, 30);
  strip.show();
  screens.SetSystemUIMode(SystemUIMode::ContentHidden, kUIOptionDisableProcessSwitch,
                          window.windowHandle());
  ASSERT_TRUE(WaitUntil([&] { return screens.HoldsInput(); }));
  test::SecondClient stranger;
  const QRect menu(50, 50, 200, 200);
  const auto order = [&](std::vector<QRect> expected) {
    const std::vector<QRect> all = other.UnmanagedWindows();
    return all.size() >= 3 && std::equal(expected.begin(), expected.end(), all.end() - 3);
  };
  for (int raised = 0; raised < 3; ++raised) {
    stranger.ShowOnTop(menu);
    ASSERT_TRUE(order({window.geometry(), strip.geometry(), menu}));
    EXPECT_TRUE(WaitUntil([&] { return order({menu, window.geometry(), strip.geometry()}); }));
  }
  stranger.Hide(static_cast<xcb_window_t>(window.winId()));
  EXPECT_TRUE(WaitUntil([&] {
    return screens.HoldsInput() && !other.CanTakePointer() &&
           order({menu, window.geometry(), strip.geometry()});
  }));
  // As when a menu of this program closes, of which nothing is told.
  xcb_ungrab_pointer(XcbDesktop::Open()->Connection(), XCB_CURRENT_TIME);
  xcb_flush(XcbDesktop::Open()->Connection());
  ASSERT_TRUE(WaitUntil([&] { return other.CanTakePointer(); }));
  EXPECT_TRUE(WaitUntil([&] { return !other.CanTakePointer(); }));
  screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
  stranger.ShowOnTop(menu);
  EXPECT_FALSE(WaitUntil(
      [&] {
        return !order({window.geometry(), strip.geometry(), menu});
      },
      300ms))
      << "goes on afterwards";
}

TEST_F(XcbScreensTest, WhatAnotherProgramDoesToThePanelOrACoverIsUndone) {
  AddMonitor("left", 0, 640);
  AddMonitor("right", 640, 640);
  QWidget window(nullptr, Qt::X11BypassWindowManagerHint);
  window.setGeometry(0, 0, 640, 800);
  window.show();
  screens.CaptureSecondaryDisplays();
  const auto ofCover = [&] {
    for (QWindow* one : QGuiApplication::topLevelWindows()) {
      if (one != window.windowHandle() && one->geometry() == QRect(640, 0, 640, 800))
        return static_cast<xcb_window_t>(one->winId());
    }
    return static_cast<xcb_window_t>(XCB_WINDOW_NONE);
  };
  const auto rootEvents = [] {
    const XcbDesktop desktop = *XcbDesktop::Open();
    return test::Owned(xcb_get_window_attributes_reply(
                           desktop.Connection(),
                           xcb_get_window_attributes(desktop.Connection(), desktop.Root()),
                           nullptr))
        ->your_event_mask;
  };
  const std::uint32_t before = rootEvents();
  EXPECT_FALSE(before & XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY) << "woken up by every window";
  screens.SetSystemUIMode(SystemUIMode::ContentHidden, kUIOptionDisableProcessSwitch,
                          window.windowHandle());
  const auto isWhole = [&](xcb_window_t id) {
    return screens.HoldsInput() && other.CanBeSeen(id) && !other.IsCut(id) &&
           !test::Run({"xprop", "-id", std::to_string(id), "_NET_WM_WINDOW_OPACITY"}, {})
                .output.contains(u'=');
  };
  for (const auto& id : {std::function<xcb_window_t()>(ofCover), std::function([&] {
                           return static_cast<xcb_window_t>(window.winId());
                         })}) {
    ASSERT_TRUE(WaitUntil([&] { return isWhole(id()); }));
    other.CutAway(id());
    EXPECT_TRUE(other.IsCut(id()));
    EXPECT_TRUE(WaitUntil([&] { return isWhole(id()); })) << "cut";
    Tool({"xprop", "-id", std::to_string(id()), "-f", "_NET_WM_WINDOW_OPACITY", "32c", "-set",
          "_NET_WM_WINDOW_OPACITY", "0"});
    EXPECT_TRUE(WaitUntil([&] { return isWhole(id()); })) << "translucent";
  }
  Tool({"xdotool", "windowclose", std::to_string(ofCover())});
  EXPECT_TRUE(WaitUntil([&] { return isWhole(ofCover()); })) << "a cover destroyed";
  Tool({"xdotool", "windowclose", std::to_string(window.winId())});
  EXPECT_TRUE(WaitUntil([&] { return !screens.HoldsInput(); })) << "the panel destroyed";
  screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
  EXPECT_EQ(rootEvents(), before);
  screens.ReleaseDisplays();
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
    EXPECT_FALSE(screens.HoldsInput());
    if (givenBack) screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
    menu.ReleasePointer();
    const auto patience = std::chrono::milliseconds(givenBack ? 400 : 5000);
    EXPECT_EQ(WaitUntil([&] { return screens.HoldsInput(); }, patience), !givenBack);
    EXPECT_EQ(other.CanTakePointer(), givenBack);
    screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
    EXPECT_FALSE(screens.HoldsInput());
    EXPECT_TRUE(WaitUntil([&] { return other.CanTakePointer() && other.CanTakeKeyboard(); }));
  }
}

}  // namespace
}  // namespace vardell
