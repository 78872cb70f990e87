#include "Common Sources/DurationString.h"

#include <gtest/gtest.h>

#include <limits>

namespace vardell {
namespace {

TEST(DurationStringTest, SaysWhatTheTableSays) {
  struct Row {
    std::int32_t value;
    std::int32_t mode;
    const char* words;
  };
  constexpr Row kRows[] = {
      {0, 1, "0 minute"},
      {1, 1, "1 minute"},
      {2, 1, "2 minutes"},
      {59, 1, "59 minutes"},
      {60, 1, "1 hour 0 minute"},
      {61, 1, "1 hour 1 minute"},
      {119, 1, "1 hour 59 minutes"},
      {120, 1, "2 hours 0 minute"},
      {125, 1, "2 hours 5 minutes"},
      {-5, 1, "-5 minute"},
      {-65, 1, "-5 minute"},
      {std::numeric_limits<std::int32_t>::max(), 1, "35791394 hours 7 minutes"},
      {std::numeric_limits<std::int32_t>::min(), 1, "-8 minute"},
      {0, 2, "0 second"},
      {1, 2, "1 second"},
      {45, 2, "45 seconds"},
      {60, 2, "0 second"},
      {75, 2, "15 seconds"},
      {-1, 2, "-1 second"}};
  for (const Row& row : kRows) {
    EXPECT_EQ(CopyDurationString(row.value, row.mode).toStdString(), row.words)
        << row.value << " in mode " << row.mode;
  }
  EXPECT_TRUE(CopyDurationString(5, 0).isNull());
  EXPECT_TRUE(CopyDurationString(5, 3).isNull());
}

}  // namespace
}  // namespace vardell
