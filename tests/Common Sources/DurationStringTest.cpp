#include "Common Sources/DurationString.h"

#include <gtest/gtest.h>

#include <limits>
#include <tuple>

#include "Common Sources/TimeZones.h"

namespace vardell {
namespace {

TEST(DurationStringTest, SaysWhatTheTableSays) {
  const std::tuple<std::int32_t, std::int32_t, const char*> kRows[] = {
      {0, 1, "0 minute"},
      {1, 1, "1 minute"},
      {2, 1, "2 minutes"},
      {59, 1, "59 minutes"},
      {60, 1, "1 hour 0 minute"},
      {119, 1, "1 hour 59 minutes"},
      {120, 1, "2 hours 0 minute"},
      {125, 1, "2 hours 5 minutes"},
      {-5, 1, "-5 minute"},
      {-65, 1, "-5 minute"},
      {std::numeric_limits<std::int32_t>::max(), 1, "35791394 hours 7 minutes"},
      {std::numeric_limits<std::int32_t>::min(), 1, "-8 minute"},
      {0, 2, "0 second"},
      {1, 2, "1 second"},
      {60, 2, "0 second"},
      {75, 2, "15 seconds"},
      {-1, 2, "-1 second"}};
  for (const auto& [value, mode, words] : kRows)
    EXPECT_EQ(CopyDurationString(value, mode).toStdString(), words) << value << " " << mode;
  EXPECT_TRUE(CopyDurationString(5, 0).isNull());
  EXPECT_TRUE(CopyDurationString(5, 3).isNull());
}

TEST(TimeZonesTest, NowFollowsAZoneThatChangesWhileTheProgramRuns) {
  for (const int hours : {5, -3, 0}) {
    qputenv("TZ", QByteArray("<AAA>") + QByteArray::number(-hours));
    EXPECT_EQ(LocalNow().offsetFromUtc(), hours * 3600);
  }
  qunsetenv("TZ");
}

}  // namespace
}  // namespace vardell
