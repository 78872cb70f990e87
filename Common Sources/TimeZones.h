// The time and the time zone that clocks on the wall of this machine show.
#pragma once

#include <QDateTime>
#include <QTimeZone>

namespace vardell {

// Fetched at the first call and kept for the life of the process.
const QTimeZone& GetDefaultTimeZone();

// Now, by the zone as it is now: an administrator may have changed it since the process began.
QDateTime LocalNow();

}  // namespace vardell
