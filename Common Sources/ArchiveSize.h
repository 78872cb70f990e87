// For the keyed archive's reader and writer.
#pragma once

#include <cstdint>

#include "Common Sources/Caps.h"

namespace vardell {

// How large a value is with every sharing undone, so that a small archive cannot stand for a value
// that nobody could walk through.
struct ArchiveSize {
  std::uint64_t nodes = 0;      // values and dictionary keys
  std::uint64_t textBytes = 0;  // two for each UTF-16 unit, one for each byte of data

  // False, and nothing added, where the sum is more than an archive may hold.
  [[nodiscard]] bool Add(const ArchiveSize& more) {
    if (more.nodes > kMaxArchiveNodes - nodes) return false;
    if (more.textBytes > kMaxArchiveTextBytes - textBytes) return false;
    nodes += more.nodes;
    textBytes += more.textBytes;
    return true;
  }
};

}  // namespace vardell
