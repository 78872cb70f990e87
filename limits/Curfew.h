// The allowed hours of an application or of the session. Main thread only; nothing blocks.
#pragma once

#include <QDateTime>
#include <QString>
#include <cstdint>
#include <functional>

#include "limits/WatchedApps.h"

namespace vardell {

// What a check asks for, in this order: an alert, then a kill.
struct CurfewDecision {
  enum class Kill { None, Entry, Session, EntryThenSession };
  bool alert = false;
  bool alertIsEarly = false;
  std::int32_t boundaryMinutes = 0;  // of the alert, since midnight
  Kill kill = Kill::None;
  bool killAfterAlert = false;  // both bounds at once: the kill waits for the alert to be dismissed
  bool warned = false;          // the entry's flag afterwards
};

// Pure: `localNow` in the zone that counts.
CurfewDecision DecideCurfew(const LimitsRecord& limits, bool warned, const QDateTime& localNow);

struct CurfewActions {
  std::function<QDateTime()> localNow;
  // Queues the alert; `dismissed` is called once it has been seen (or dropped).
  std::function<void(const WatchedAppPtr&, bool isEarly, std::int32_t boundaryMinutes,
                     std::function<void()> dismissed)>
      showAlert;
  std::function<void(std::int32_t pid)> killProcess;
  std::function<std::int32_t()> loginPid;
};

// Also carries out a kill that has waited for its alert since the check before.
void CheckCurfew(const WatchedAppPtr& entry, const CurfewActions& actions);

}  // namespace vardell
