// A number of bytes in words, in the user's language.
#pragma once

#include <QString>
#include <cstdint>

namespace vardell {

// "1023 B", "64 KB" (whole, truncated), "1.50 MB", "2.00 GB". 65,535 and 4,294,967,295 stand for an
// unknown size: "--". The units are looked up once. Main thread only.
QString CopySizeString(std::uint64_t bytes);

}  // namespace vardell
