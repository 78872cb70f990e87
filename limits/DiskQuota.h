// The check of the home folder against its quota. Main thread only; nothing blocks.
#pragma once

#include <cstdint>
#include <functional>

#include "limits/WatchedApps.h"

namespace vardell {

struct DiskQuotaActions {
  std::function<void(bool enabled, std::uint64_t limitBytes, std::uint64_t usageBytes)> setDiskLine;
};

// Called once a minute for the GlobalSettings entry. Leaves the entry with a credit of 10, so that
// it lives on and is checked again a minute later.
void CheckDiskQuota(WatchedApp& entry, const DiskQuotaActions& actions);

}  // namespace vardell
