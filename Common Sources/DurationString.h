// A remaining or used time in words, in the user's language.
#pragma once

#include <QString>
#include <cstdint>

namespace vardell {

inline constexpr std::int32_t kDurationMinutes = 1;  // hours and minutes
inline constexpr std::int32_t kDurationSeconds = 2;  // the seconds within the current minute

// "2 hours 5 minutes", "45 seconds". Hours are plural from two on, minutes and seconds when more
// than one is left; the mark of the plural is "s" in every language. A null string for any other
// mode. Looked up anew at each call.
QString CopyDurationString(std::int32_t value, std::int32_t mode);

}  // namespace vardell
