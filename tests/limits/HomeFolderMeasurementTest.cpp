#include "limits/HomeFolderMeasurement.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <future>
#include <optional>

#include "tests/support/Waiting.h"

namespace vardell::test {
namespace {

class HomeFolderMeasurementTest : public testing::Test {
 protected:
  // On the worker thread: until it may go, or (`heeds`) is told to stop.
  HomeFolderMeasurement::Measure Slow(bool heeds) {
    return [heeds, mayGo = future_](const std::stop_token& stop) {
      while (mayGo.wait_for(1ms) != std::future_status::ready) {
        if (heeds && stop.stop_requested()) return std::uint64_t{1};
      }
      return std::uint64_t{1};
    };
  }
  HomeFolderMeasurement::Deliver Keep() {
    return [this](std::uint64_t bytes) {
      EXPECT_EQ(std::this_thread::get_id(), mainThread_);
      delivered_ = bytes;
    };
  }

  CoreApplication application_;
  std::promise<void> mayGo_;
  std::shared_future<void> future_ = mayGo_.get_future().share();
  std::thread::id mainThread_ = std::this_thread::get_id();
  std::optional<std::uint64_t> delivered_;
};

TEST_F(HomeFolderMeasurementTest, OneAtATimeAndTheNextFromWithinTheDelivery) {
  HomeFolderMeasurement measurement(Slow(true));
  ASSERT_TRUE(measurement.Start([&](std::uint64_t) { EXPECT_TRUE(measurement.Start(Keep())); }));
  EXPECT_FALSE(measurement.Start([](std::uint64_t) { FAIL(); }));
  mayGo_.set_value();
  EXPECT_TRUE(WaitUntil([this] { return delivered_ == 1; }));
}

TEST_F(HomeFolderMeasurementTest, OneThatIsOverTakesItsFigureAlong) {
  std::atomic<int> measured = 0;
  std::optional<HomeFolderMeasurement> measurement(
      [&](const std::stop_token&) { return std::uint64_t(++measured); });
  ASSERT_TRUE(measurement->Start(Keep()));
  while (measured == 0) std::this_thread::yield();
  measurement.reset();
  QCoreApplication::processEvents();
  EXPECT_FALSE(delivered_);
}

// --- the end of the agent

TEST_F(HomeFolderMeasurementTest, NeitherAWalkNorAFileSystemThatDoesNotAnswerHoldsTheEndUp) {
  for (const bool heeds : {true, false}) {
    const auto began = Clock::now();
    (void)HomeFolderMeasurement(Slow(heeds)).Start(Keep());
    EXPECT_LT(Clock::now() - began, heeds ? 900ms : 5s);
  }
  mayGo_.set_value();
}

}  // namespace
}  // namespace vardell::test
