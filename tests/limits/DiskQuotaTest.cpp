#include "limits/DiskQuota.h"

#include <gtest/gtest.h>

namespace vardell {
namespace {

TEST(DiskQuota, KeepsItsEntryAliveAndTellsThatTheQuotaIsOff) {
  for (const bool enabled : {false, true}) {
    WatchedApp entry;
    entry.limits.diskQuotaEnabled = enabled ? 1 : 0;
    int told = 0;
    CheckDiskQuota(entry, {[&](bool on, std::uint64_t limit, std::uint64_t usage) {
                     ++told;
                     EXPECT_FALSE(on);
                     EXPECT_EQ(limit, 0u);
                     EXPECT_EQ(usage, 0u);
                   }});
    EXPECT_EQ(entry.limits.credit, 10);
    EXPECT_EQ(told, enabled ? 0 : 1) << "nothing was measured";
  }
}

TEST(DiskQuota, DoesWithoutAStatusLine) {
  WatchedApp entry;
  CheckDiskQuota(entry, {});
  EXPECT_EQ(entry.limits.credit, 10);
}

}  // namespace
}  // namespace vardell
