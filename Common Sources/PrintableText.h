// What may be shown on a terminal, or written into a log, as it is. Pure.
#pragma once

namespace vardell {

// Not what a terminal would obey, nor what cannot be seen: controls, formats, separators of lines.
bool IsPrintable(char32_t character);

}  // namespace vardell
