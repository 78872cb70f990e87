// On a platform that is no X server the seams stand still instead of failing.
#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QScreen>
#include <QWindow>

#include "platform/linux/XcbFrontApplication.h"
#include "platform/linux/XcbHotKeys.h"
#include "platform/linux/XcbScreens.h"

namespace vardell {
namespace {

TEST(WithoutXServerTest, NothingIsInFrontTakenOrPressed) {
  int count = 3;
  char words[3][10] = {"test", "-platform", "offscreen"};
  char* pointers[] = {words[0], words[1], words[2], nullptr};
  const QGuiApplication application(count, pointers);
  XcbFrontApplication front;
  front.Watch([] { FAIL(); });
  EXPECT_EQ(front.FrontPid(), 0);
  EXPECT_FALSE(front.IsDisplayCaptured());
  EXPECT_TRUE(WindowOwners().empty());

  XcbHotKeys keys;
  EXPECT_TRUE(keys.Register({1, 2}, kKeyCodeC, kControlOption));

  XcbScreens screens;
  QWindow window;
  EXPECT_EQ(screens.MainDisplayBounds(), QGuiApplication::primaryScreen()->geometry());
  screens.CaptureSecondaryDisplays();
  screens.SetSystemUIMode(SystemUIMode::ContentHidden, kUIOptionDisableProcessSwitch, &window);
  EXPECT_FALSE(screens.HoldsInput());
  screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
  screens.ReleaseDisplays();
  QCoreApplication::processEvents();
}

}  // namespace
}  // namespace vardell
