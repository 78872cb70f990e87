// The table of watched applications. Main thread only; adding and refreshing ask the Server and
// block as link/Requests.h says. Entries are shared with the alerts that show them, so whoever
// removes an entry from the table leaves it valid for them; nothing else keeps entries alive.
#pragma once

#include <QString>
#include <cstdint>
#include <memory>
#include <vector>

#include "link/LimitsRecord.h"
#include "platform/Processes.h"
#include "platform/System.h"

namespace vardell {

struct ServerLink;

inline constexpr char kGlobalSettingsIdentifier[] = "com.brenwick.globalSettings";
inline constexpr char kUnknownApplicationIdentifier[] = "com.tovmark.unknownapp";

struct WatchedApp {
  LimitsRecord limits;   // replaced whole at each refresh
  std::int32_t pid = 0;  // 0: GlobalSettings, or a process that is never killed
  QString identifier;
  QString displayName;      // "computer" (localised) for the login window; may be empty
  std::uint32_t ticks = 0;  // seconds walked since it was made or refreshed
  bool lastMinuteUsed = false;

  // Held by an alert that says "spent": not counted, reported or shown until its end is carried
  // out.
  bool held = false;
  // A curfew was breached at both bounds at once: the kill waits for the alert, or the next minute.
  bool curfewKillPending = false;
};

using WatchedAppPtr = std::shared_ptr<WatchedApp>;
using WatchedAppTable = std::vector<WatchedAppPtr>;

// What the table's operations need of the process-wide state; borrowed, never kept.
struct WatchContext {
  ServerLink& link;
  Processes& processes;
  System& system;
  const QString& currentUserName;
  bool lastMinuteCredit = true;
  std::int32_t& loginPid;
};

// Offers every running application and the login window, then adds the GlobalSettings entry.
void FillWatchedApps(const WatchContext& context, WatchedAppTable& table);

// Announces the application, fetches its limits and adds it when they are enabled. False when
// nothing was added: no location, not enabled, or an entry with this pid and identifier is there.
bool AddWatchedApp(const WatchContext& context, const ProcessSerialNumber& process,
                   WatchedAppTable& table);

// Fetches the entry's limits again. True when the entry must be removed.
[[nodiscard]] bool RefreshWatchedApp(const WatchContext& context, WatchedApp& entry,
                                     bool lastMinuteAllowed);

// Removes entries with that pid; of two adjacent ones the second survives the call.
void RemoveWatchedAppsWithPid(std::int32_t pid, WatchedAppTable& table);

void RemoveWatchedAppForProcess(const ProcessSerialNumber& process, WatchedAppTable& table);

// The first entry whose identifier is exactly this one, or null.
WatchedAppPtr FindWatchedApp(const WatchedAppTable& table, const QString& identifier);

}  // namespace vardell
