#include "platform/linux/XcbFrontApplication.h"

#include <gtest/gtest.h>

#include <QScreen>
#include <QWidget>
#include <algorithm>

#include "tests/support/QtEnvironment.h"
#include "tests/support/SecondClient.h"

namespace vardell {
namespace {

using namespace test;

Program Terminal(const std::string& title) {
  return Program({"xterm", "-fa", "DejaVu Sans Mono", "-T", title, "-e", "sleep 1000"}, {});
}

void Activate(const std::string& title) {
  Tool({"xdotool", "search", "--sync", "--onlyvisible", "--name", title, "windowactivate"});
}

bool Owns(pid_t pid) {
  const std::vector<pid_t> owners = WindowOwners();
  return std::find(owners.begin(), owners.end(), pid) != owners.end();
}

class XcbFrontApplicationTest : public testing::Test {
 protected:
  bool WaitForFront(std::int32_t pid) {
    return WaitUntil([&] { return front.FrontPid() == pid; });
  }
  XcbFrontApplication front;
};

TEST_F(XcbFrontApplicationTest, TellsEachSwitchOnce) {
  const Program first = Terminal("first");
  const Program second = Terminal("second");
  ASSERT_TRUE(WaitUntil([&] { return Owns(first.pid()) && Owns(second.pid()); }));
  Activate("first");
  ASSERT_TRUE(WaitForFront(first.pid()));
  std::vector<std::int32_t> told;
  front.Watch([&] { told.push_back(front.FrontPid()); });
  Activate("second");
  ASSERT_TRUE(WaitUntil([&] { return !told.empty() && told.back() == second.pid(); }));
  told.clear();
  const std::string same = test::Run({"xdotool", "getactivewindow"}, {}).output.toStdString();
  Tool({"xprop", "-root", "-f", "_NET_ACTIVE_WINDOW", "32x", "-set", "_NET_ACTIVE_WINDOW", same});
  QCoreApplication::processEvents();
  Activate("first");
  ASSERT_TRUE(WaitUntil([&] { return !told.empty() && told.back() == first.pid(); }));
  EXPECT_EQ(std::count(told.begin(), told.end(), second.pid()), 0);
}

TEST_F(XcbFrontApplicationTest, LeavesQtItsEventsOfTheRootWindow) {
  front.Watch([] {});
  int screensAdded = 0;
  const auto connection =
      QObject::connect(qGuiApp, &QGuiApplication::screenAdded, [&](QScreen*) { ++screensAdded; });
  Tool({"xrandr", "--setmonitor", "left", "640/100x800/100+0+0", "screen"});
  Tool({"xrandr", "--setmonitor", "right", "640/100x800/100+640+0", "none"});
  EXPECT_TRUE(WaitUntil([&] { return screensAdded > 0; }));
  Tool({"xrandr", "--delmonitor", "right"});
  Tool({"xrandr", "--delmonitor", "left"});
  QObject::disconnect(connection);
}

TEST_F(XcbFrontApplicationTest, AFullScreenWindowOfAnotherProgramHasTheDisplay) {
  Program game = Terminal("game");
  Activate("game");
  ASSERT_TRUE(WaitForFront(game.pid()));
  // The X server knows the pid better than the window.
  Tool({"xprop", "-name", "game", "-f", "_NET_WM_PID", "32c", "-set", "_NET_WM_PID", "1"});
  EXPECT_EQ(front.FrontPid(), game.pid());
  EXPECT_FALSE(front.IsDisplayCaptured());
  Tool({"wmctrl", "-r", "game", "-b", "add,fullscreen"});
  EXPECT_TRUE(WaitUntil([&] { return front.IsDisplayCaptured(); }));
  Tool({"wmctrl", "-r", "game", "-b", "remove,fullscreen"});
  EXPECT_TRUE(WaitUntil([&] { return !front.IsDisplayCaptured(); }));
  {
    QWidget own;  // does not count, nor does a destroyed one
    own.showFullScreen();
    ASSERT_TRUE(WaitForFront(getpid()));
    EXPECT_FALSE(front.IsDisplayCaptured());
  }
  EXPECT_TRUE(WaitUntil([&] { return front.FrontPid() != getpid(); }));
  game.End(SIGKILL);
  EXPECT_TRUE(WaitForFront(0));
  EXPECT_FALSE(front.IsDisplayCaptured());
}

TEST_F(XcbFrontApplicationTest, WindowOwnersAreTheApplicationsWithWindows) {
  QWidget own;
  own.show();
  Program terminal = Terminal("terminal");
  const Program unmanaged({"xclock", "-xrm", "*overrideRedirect: true"}, {});
  EXPECT_TRUE(WaitUntil([&] { return Owns(terminal.pid()) && Owns(unmanaged.pid()); }));
  EXPECT_FALSE(Owns(getpid()));
  EXPECT_EQ(WindowOwners().size(), 2u) << "the window manager is none";
  terminal.End(SIGKILL);
  EXPECT_TRUE(WaitUntil([&] { return !Owns(terminal.pid()) && WindowOwners().size() == 1; }));
}

}  // namespace
}  // namespace vardell
