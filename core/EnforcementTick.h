// What happens once a second: credit is counted down, reported and refreshed, warnings are queued,
// and whose time is spent is ended. Main thread only. Blocks for the requests of link/Requests.h
// and runs no event loop; alerts are queued and never waited for.
#pragma once

#include "core/Agent.h"

namespace vardell {

// One second of every entry.
void EnforcementTick(Agent& agent);

// Tells the status item what is left to every entry but GlobalSettings and those that are spent:
// minutes, with the seconds left in the current one as hundredths.
void RefreshStatusCredits(Agent& agent);

// The login window always lives.
bool IsWatchedProcessAlive(Agent& agent, const WatchedApp& entry);

// Ends the application, or for the login window the session (a full-screen application in front is
// ended first, with a pause of 5 s to let it give the display back).
void EndWatchedApp(Agent& agent, const WatchedApp& entry);

// Removes every entry with that pid, with its credit line and its unseen alerts.
void RemoveEntriesWithPid(Agent& agent, std::int32_t pid);

// Offers all running applications to the table again and renews the GlobalSettings entry.
void OfferRunningApplications(Agent& agent);

}  // namespace vardell
