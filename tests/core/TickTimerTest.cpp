#include "core/TickTimer.h"

#include <gtest/gtest.h>

#include <QCoreApplication>

#include "tests/support/Waiting.h"

namespace vardell {
namespace {

using std::chrono::milliseconds;

// The timer is real, with seconds of 10 ms; what it counts by is moved by hand.
class TickTimerTest : public testing::Test {
 protected:
  void SetUp() override {
    timer.Start([this] {
      ++ticks;
      if (onTick) onTick();
    });
  }
  void Pass(int hundredths) { now += milliseconds(hundredths) / 10; }
  // Lets the timer fire as often as it wants to.
  int Ticks() {
    test::WaitUntil([] { return false; }, milliseconds(60));
    return std::exchange(ticks, 0);
  }

  int argc = 1;
  char name[5] = "test";
  char* argv[2] = {name, nullptr};
  QCoreApplication application{argc, argv};
  milliseconds now{1000};
  int ticks = 0;
  std::function<void()> onTick;
  TickTimer timer{[this] { return now; }, milliseconds(10)};
};

TEST_F(TickTimerTest, CountsTheWholeSecondsThatPassed) {
  EXPECT_EQ(0, Ticks());
  Pass(99);
  EXPECT_EQ(0, Ticks());
  Pass(1);
  EXPECT_EQ(1, Ticks());
  Pass(350);
  EXPECT_EQ(3, Ticks());
  Pass(50);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, CountsNothingWhileAMessageIsUp) {
  timer.BeginMessage();
  timer.BeginMessage();
  Pass(5000);
  EXPECT_EQ(0, Ticks());
  timer.EndMessage();
  EXPECT_EQ(0, Ticks());
  timer.EndMessage();
  Pass(90);
  EXPECT_EQ(0, Ticks());
  Pass(10);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, StartsAgainAfterTheLastReasonToStandStill) {
  timer.SetSessionAway(true);
  timer.SetSessionAway(true);
  timer.BeginMessage();
  timer.SetSessionAway(false);
  Pass(500);
  EXPECT_EQ(0, Ticks());
  timer.EndMessage();
  Pass(100);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, AReasonThatWasNeverThereChangesNothing) {
  Pass(60);
  timer.SetSessionAway(false);
  timer.EndMessage();
  Pass(40);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, StopsInTheMiddleOfCatchingUp) {
  onTick = [this] { timer.SetSessionAway(true); };
  Pass(500);
  EXPECT_EQ(1, Ticks());
}

}  // namespace
}  // namespace vardell
