#include "Common Sources/TimeZones.h"

#include <gtest/gtest.h>

namespace vardell {
namespace {

TEST(TimeZonesTest, NowFollowsAZoneThatChangesWhileTheProgramRuns) {
  for (const int hours : {5, -3, 0}) {
    qputenv("TZ", QByteArray("<AAA>") + QByteArray::number(-hours));
    EXPECT_EQ(LocalNow().offsetFromUtc(), hours * 3600);
  }
  qunsetenv("TZ");
}

}  // namespace
}  // namespace vardell
