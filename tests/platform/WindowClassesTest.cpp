#include "platform/linux/WindowClasses.h"

#include <gtest/gtest.h>

#include <QApplication>

#include "platform/HotKeys.h"
#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/XcbDesktop.h"
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

}  // namespace
}  // namespace vardell
