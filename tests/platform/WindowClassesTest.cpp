#include "platform/linux/WindowClasses.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <algorithm>
#include <utility>

#include "platform/HotKeys.h"
#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/XcbDesktop.h"
#include "platform/linux/XcbWindowOwners.h"
#include "tests/platform/Installation.h"
#include "tests/support/FakeSession.h"
#include "tests/support/Program.h"
#include "tests/support/QtEnvironment.h"

namespace vardell {
namespace {

using test::Program;
using test::WaitUntil;

const auto* const environment =
    testing::AddGlobalTestEnvironment(new test::QtEnvironment<QApplication>);

class RealWindowsTest : public testing::Test {
 protected:
  RealWindowsTest() { installed_.CopyProgram("home/toy", "/usr/bin/xclock"); }
  Program StartToy(std::vector<std::string> more = {}) const {
    more.insert(more.begin(), installed_.Native("home/toy").toStdString());
    return Program(more, {});
  }
  std::optional<ApplicationInfo> Running(pid_t pid) {
    for (const ProcessSerialNumber& process : processes_.RunningApplications()) {
      if (process.pid == pid) return processes_.Application(process);
    }
    return std::nullopt;
  }

  test::Installation installed_;
  FakeSession session_;
  LinuxProcesses processes_{session_, {WindowOwners, WindowClasses}};
};

TEST_F(RealWindowsTest, BareExecutableWithAWindowIsAnApplication) {
  Program toy = StartToy();
  ASSERT_TRUE(WaitUntil([&] { return Running(toy.pid()).has_value(); }));
  EXPECT_EQ(Running(toy.pid())->creatorCode, FourCharCode("toy "));
}

TEST_F(RealWindowsTest, ClassOfTheWindowNamesTheEntry) {
  installed_.AddSystemEntry("org.toys.Clock", "@/bin/none", "StartupWMClass=XClock");
  Program toy = StartToy({"-name", "ticking"});
  ASSERT_TRUE(WaitUntil([&] { return WindowClasses(toy.pid()).contains("ticking"); }));
  ASSERT_TRUE(WaitUntil([&] { return Running(toy.pid()).has_value(); }));
  EXPECT_EQ(Running(toy.pid())->identifier, QStringLiteral("org.toys.Clock"));
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

  const pid_t pid = managed.pid();
  managed.End(SIGTERM);
  EXPECT_TRUE(WaitUntil([&] { return !owns(pid); }));
  EXPECT_TRUE(askedNoMore());
}

}  // namespace
}  // namespace vardell
