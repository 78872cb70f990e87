#include "limits/DiskQuota.h"

namespace vardell {

namespace {

constexpr std::int32_t kCreditOfGlobalSettings = 10;

}  // namespace

void CheckDiskQuota(WatchedApp& entry, const DiskQuotaActions& actions) {
  entry.limits.credit = kCreditOfGlobalSettings;
  if (!entry.limits.diskQuotaEnabled && actions.setDiskLine) actions.setDiskLine(false, 0, 0);
}

}  // namespace vardell
