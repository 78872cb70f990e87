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
  void Pass(int tenthsOfASecond) { now += milliseconds(tenthsOfASecond); }
  // Lets the timer fire as often as it wants to.
  int Ticks() {
    test::WaitUntil([] { return false; }, milliseconds(60));
    return std::exchange(ticks, 0);
  }

  test::CoreApplication application;
  milliseconds now{1000};
  int ticks = 0;
  std::function<void()> onTick;
  TickTimer timer{[this] { return now; }, milliseconds(10)};
};

TEST_F(TickTimerTest, CountsTheWholeSecondsThatPassed) {
  EXPECT_EQ(0, Ticks());
  Pass(9);
  EXPECT_EQ(0, Ticks());
  Pass(1);
  EXPECT_EQ(1, Ticks());
  Pass(35);
  EXPECT_EQ(3, Ticks());
  Pass(5);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, CountsNothingWhileAMessageIsUp) {
  timer.BeginMessage();
  timer.BeginMessage();
  Pass(500);
  EXPECT_EQ(0, Ticks());
  timer.EndMessage();
  EXPECT_EQ(0, Ticks());
  timer.EndMessage();
  Pass(9);
  EXPECT_EQ(0, Ticks());
  Pass(1);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, StartsAgainAfterTheLastReasonToStandStill) {
  timer.SetSessionAway(true);
  timer.SetSessionAway(true);
  timer.BeginMessage();
  timer.SetSessionAway(false);
  Pass(50);
  EXPECT_EQ(0, Ticks());
  timer.EndMessage();
  Pass(10);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, SecondsOwedFromBeforeAPauseAreCountedAfterIt) {
  Pass(57);
  timer.SetSessionAway(true);
  Pass(500);
  timer.SetSessionAway(false);
  Pass(10);
  EXPECT_EQ(6, Ticks());
}

TEST_F(TickTimerTest, PiecesOfSecondsBetweenPausesAddUp) {
  for (int i = 0; i < 7; ++i) {
    Pass(6);
    timer.BeginMessage();
    Pass(50);
    timer.EndMessage();
  }
  EXPECT_EQ(4, Ticks());
  Pass(10);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, AReasonThatWasNeverThereChangesNothing) {
  Pass(6);
  timer.SetSessionAway(false);
  timer.EndMessage();
  Pass(4);
  EXPECT_EQ(1, Ticks());
}

TEST_F(TickTimerTest, StopsInTheMiddleOfCatchingUp) {
  onTick = [this] { timer.SetSessionAway(true); };
  Pass(50);
  EXPECT_EQ(1, Ticks());
}

}  // namespace
}  // namespace vardell
