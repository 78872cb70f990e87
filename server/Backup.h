// A backup as the control socket has it: JSON of
// {"format": 1, "made", "server",
//  "limits": [{"user", "identifier", "limits", "credit", "options"}],
//  "usage": [{"user", "identifier", "days"}]}.
// "options" are those of server/LimitsOptions.h that are not the usual ones, and left out where
// there are none.
// Pure functions, to be called on any thread; a large one takes them a second.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <optional>

#include "server/ControlJson.h"
#include "server/Household.h"

namespace vardell::server {

inline constexpr int kBackupFormat = 1;

QByteArray WriteBackup(const Backup& backup, const QDateTime& made, const QString& version);

// Everything is checked, by the rules of limits/LimitsKeys.h; the first problem's field is its
// path: "limits[3].limits.WD start". All fifteen keys must be there (for the global settings their
// two). `backup` is untouched when there is one.
[[nodiscard]] std::optional<Problem> ReadBackup(const QByteArray& bytes, Backup* backup);

}  // namespace vardell::server
