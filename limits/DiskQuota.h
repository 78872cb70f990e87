// The check of the home folder against its quota. Main thread only; nothing blocks: the folder is
// measured elsewhere, and what a check decides is decided when its figure is in.
#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <memory>

#include "limits/WatchedApps.h"

namespace vardell {

// What outlives a check, and the GlobalSettings entry.
struct DiskQuota {
  // 0: not warned; -1: warned at the last check; -2: at the one before it; below: the session's end
  // was asked for. Wraps around.
  std::int16_t warningCounter = 0;
  bool messagePending = false;  // the warning waits or is up

  std::weak_ptr<WatchedApp> asking = {};  // whose check waits for its figure
  bool askedUnderMessage = false;
};

struct DiskQuotaDecision {
  bool endSession = false;
  bool warn = false;
  std::int16_t counter = 0;  // afterwards; a warning changes it only when it was seen
};

// Pure. While a warning waits or is up nothing is decided. The usage is compared as a signed
// number.
DiskQuotaDecision DecideDiskQuota(std::int16_t counter, std::uint64_t usageBytes,
                                  std::int64_t limitBytes, bool messagePending);

struct DiskQuotaActions {
  // Measures the home folder; `deliver` is called later, from the event loop. Ignored while a
  // measurement is under way: its figure then serves the check that asked last.
  std::function<void(std::function<void(std::uint64_t usageBytes)> deliver)> measure;
  // Queues the text as a full-screen message; `dismissed` is called once it was seen.
  std::function<void(const QString& text, std::function<void()> dismissed)> showMessage;
  std::function<std::int32_t()> loginPid;
  // Called with the session's pid in the entry.
  std::function<void(const WatchedApp& entry)> endWatchedApp;
  std::function<void(bool enabled, std::uint64_t limitBytes, std::uint64_t usageBytes)> setDiskLine;
};

// Called once a minute for the GlobalSettings entry. Leaves the entry with a credit of 10, so that
// it lives on and is checked again a minute later. A figure whose entry has gone is dropped.
// `actions` are copied; `quota` outlives every call of theirs.
void CheckDiskQuota(const WatchedAppPtr& entry, DiskQuota& quota, const DiskQuotaActions& actions);

}  // namespace vardell
