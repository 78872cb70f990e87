// The agent's options, read from the machine-wide preferences. Main thread only.
#pragma once

#include <QString>
#include <cstdint>
#include <optional>

#include "core/Agent.h"

namespace vardell {

// What to do when the Server cannot be reached at start-up; any other value: carry on without it.
inline constexpr std::int8_t kConfigurationLock = 1;
inline constexpr std::int8_t kConfigurationRetry = 2;

// True when the string stored under `key` has a non-zero integer value. `foundFlag`, when given,
// tells whether there is such a string; a value of another type counts as absent.
bool ReadBooleanPreference(Preferences& preferences, const QString& key, bool* foundFlag);

// Reads the four switches into the agent. May be called again at any time.
void LoadPreferences(Agent& agent);

// "Show Lock Badge": off unless it is set.
bool IsLockBadgeWanted(Preferences& preferences);

// "Configuration", or 0 where it is absent, no number, or outside -128 to 127.
std::int8_t ReadConfiguration(Preferences& preferences);

// "Server": "host:port" instead of discovery; absent or empty: discovery.
std::optional<QString> ReadPinnedServer(Preferences& preferences);

// True when the settings file names `userName`, in whatever case, as "Non-watched account".
bool IsNonWatchedAccount(const QString& userName);

}  // namespace vardell
