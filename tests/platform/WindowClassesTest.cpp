#include "platform/linux/WindowClasses.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/XcbDesktop.h"
#include "platform/linux/XcbWindowOwners.h"
#include "tests/platform/Installation.h"
#include "tests/support/FakeSession.h"
#include "tests/support/Program.h"
#include "tests/support/SecondClient.h"

namespace vardell {
namespace {

using namespace test;
using namespace Qt::StringLiterals;

TEST(WindowClassesTest, NameTheEntryOfABareProgram) {
  test::Installation installed;
  installed.AddSystemEntry("org.toys.Clock", "@/bin/none", "StartupWMClass=XClock");
  FakeSession session;
  LinuxProcesses processes(session, {WindowOwners, WindowClasses});
  Program toy(
      {installed.CopyProgram("home/toy", "/usr/bin/xclock").toStdString(), "-name", "ticking"}, {});
  ASSERT_TRUE(WaitUntil([&] { return WindowClasses(toy.pid()).contains("ticking"); }));
  EXPECT_TRUE(WaitUntil([&] {
    const auto running = processes.RunningApplications();
    return running.size() == 2 && running[1].pid == toy.pid() &&
           processes.Application(running[1])->identifier == u"org.toys.Clock"_s;
  }));
  EXPECT_TRUE(WindowClasses(getpid()).isEmpty());
}

TEST(XcbWindowOwnersTest, AsksTheServerOnlyAfterAChange) {
  int asked = 0;
  XcbWindowOwners owners([&asked] {
    ++asked;
    return WindowOwners();
  });
  const auto owns = [&owners](pid_t pid) {
    const std::vector<pid_t> all = owners.Owners();
    return std::find(all.begin(), all.end(), pid) != all.end();
  };
  const auto askedNoMore = [&] {
    return WaitUntil([&, before = -1, quiet = 0]() mutable {
      (void)owners.Owners();
      quiet = std::exchange(before, asked) == asked ? quiet + 1 : 0;
      return quiet >= 20;
    });
  };
  Program managed({"xclock"}, {});
  ASSERT_TRUE(WaitUntil([&] { return owns(managed.pid()); }));
  EXPECT_TRUE(askedNoMore());

  const auto isWatching = [] {
    const XcbDesktop desktop = *XcbDesktop::Open();
    const auto root = test::Owned(xcb_get_window_attributes_reply(
        desktop.Connection(), xcb_get_window_attributes(desktop.Connection(), desktop.Root()),
        nullptr));
    return (root->your_event_mask & XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY) != 0;
  };
  EXPECT_TRUE(isWatching());
  test::Tool({"sh", "-c", "xdotool search --name xclock windowmove 200 200"});
  EXPECT_TRUE(WaitUntil([&] { return !isWatching(); })) << "woken up by each further step";

  const pid_t pid = managed.pid();
  managed.End(SIGTERM);
  EXPECT_TRUE(WaitUntil([&] { return !owns(pid); }));
  EXPECT_TRUE(askedNoMore());
}

}  // namespace
}  // namespace vardell
