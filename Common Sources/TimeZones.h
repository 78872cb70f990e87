// The time zone that clocks on the wall of this machine show.
#pragma once

#include <QTimeZone>

namespace vardell {

// Fetched at the first call and kept for the life of the process.
const QTimeZone& GetDefaultTimeZone();

// As it is now: an administrator may have changed it since.
QTimeZone CopyCurrentTimeZone();

}  // namespace vardell
