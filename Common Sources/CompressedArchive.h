// A property-list value as one compressed block of bytes that checks itself:
//
//   offset 0    4 bytes   n, the length of the serialised value (little-endian)
//          4   16 bytes   the MD5 digest of what follows
//         20   the rest   the serialised value, compressed as a zlib stream
//
// The digest finds damage, it proves no author. Values are those of PropertyList.h, in three modes:
//
//   1  XML property list           at most 8 MiB serialised (kMaxPropertyListBytes); dates lose
//                                  fractions of a second; no text that XML forbids
//   2  sequential (ObjectArchive)  at most 64 MiB (kMaxArchiveBytes); dates keep milliseconds
//   3  keyed (KeyedArchive)        as mode 2; other tools of that format read it
//
// What goes in comes out equal, numbers with their type: int and uint come out as qlonglong, and so
// does a qulonglong that fits one. Nothing throws. Any thread; nothing blocks but the system log.
#pragma once

#include <QByteArray>
#include <QVariant>
#include <cstdint>

namespace vardell {

inline constexpr std::uint32_t kArchiveXml = 1;
inline constexpr std::uint32_t kArchiveSequential = 2;
inline constexpr std::uint32_t kArchiveKeyed = 3;

// A null array for another mode, for a value that the mode cannot hold or that is too large for it,
// and where memory ends. Writes a line to the system log.
[[nodiscard]] QByteArray CreateCompressedArchive(const QVariant& object, std::uint32_t mode);

// An invalid QVariant for null, for anything but a sound blob of the same mode, and where memory
// ends. A length that the mode cannot have, or that the compressed bytes cannot expand to, is
// refused before anything is allocated.
[[nodiscard]] QVariant CopyObjectFromCompressedArchive(const QByteArray& blob, std::uint32_t mode);

}  // namespace vardell
