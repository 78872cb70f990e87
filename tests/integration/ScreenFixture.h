// What the person sees and does in a world: texts as a screen reader is told them, the menu as a
// status bar reads it, real keys and clicks.
#pragma once

#include <gtest/gtest.h>

#include "tests/integration/World.h"
#include "tests/support/SecondClient.h"
#include "tests/support/SessionBus.h"

namespace vardell::test {

class ScreenFixture : public testing::Test {
 protected:
  void TearDown() override {
    if (!HasFailure()) return;
    fprintf(stderr, "--- screen: %s\n--- agent\n%s\n--- Server\n%s\n",
            qPrintable(reader.Windows().join(u" | "_s)), qPrintable(world.AgentOutput()),
            qPrintable(world.server.Output()));
  }

  // Before the agent starts.
  void StartDesktop() {
    bar.Start();
    reader.Start();
    // With the first key of a keyboard all programs read the layout anew, and may miss the next.
    Key("Shift_L");
  }
  [[nodiscard]] bool StartAll() {
    StartDesktop();
    return world.StartAll();
  }
  Program LaunchWithCredit(const std::string& identifier, int minutes) {
    world.InstallApplication(identifier);
    world.SetLimits(identifier, {"Credit=" + std::to_string(minutes)});
    return world.Launch(identifier);
  }
  void SetQuota(const std::string& megabytes) {
    world.SetLimits("com.brenwick.globalSettings", {"DQ Enabled=yes", "DQ Value=" + megabytes});
  }

  bool IsUp(const QString& words) { return !reader.Windows(words).isEmpty(); }
  bool ComesUp(const QString& words, int seconds = 0) {
    return WaitUntil([&] { return IsUp(words); }, kPatience + world.Seconds(seconds));
  }
  bool Goes(const QString& words) {
    return WaitUntil([&] { return !IsUp(words); });
  }
  static void Key(const std::string& combination) { Tool({"xdotool", "key", combination}); }
  static void Type(const std::string& line) { Tool({"xdotool", "type", line + "\n"}); }
  static void Click(int x = 640, int y = 400, const char* button = "1") {
    Tool({"xdotool", "mousemove", std::to_string(x), std::to_string(y), "click", button});
  }
  void LockByMenu() {
    ASSERT_TRUE(WaitUntil([&] { return !bar.Item().isNull(); }));
    (void)bar.Menu(u"Lock computer"_s);
    ASSERT_TRUE(ComesUp(kLocked));
  }

  int Paid() { return static_cast<int>(world.Claims("witness").size()); }
  bool WitnessPays(int minutes) {
    return WaitUntil([&] { return Paid() >= minutes; }, kPatience + world.Seconds(60 * minutes));
  }
  // For a minute and more.
  void ExpectNothingIsCounted() {
    const int before = Paid();
    EXPECT_FALSE(WaitUntil([&] { return Paid() > before; }, world.Seconds(70)));
  }

  const QString kLocked = u"This computer is locked"_s;
  int argc = 1;
  char name[5] = "test";
  char* argv[2] = {name, nullptr};
  QCoreApplication application{argc, argv};
  StatusBarReader bar;
  ScreenReader reader;
  World world;
};

}  // namespace vardell::test
