// A property-list value as a sequential archive: one pass to write, one pass to read. Integers are
// little-endian.
//
//   12 bytes  "VardellValue"        4 bytes  version, 1
//   then one value, a byte that tells its kind and what follows it:
//   1 false  2 true   nothing
//   3 integer         8 bytes, signed
//   4 integer         8 bytes, unsigned; only what does not fit the signed one
//   5 real            8 bytes, IEEE 754
//   6 date            8 bytes, signed: milliseconds since 1970 in UTC, years 1 to 9999
//   7 string          length of 4 bytes, UTF-8
//   8 data            length of 4 bytes, bytes
//   9 array           count of 4 bytes, that many values
//  10 dictionary      count of 4 bytes, that many keys (as 7, without the kind) and values; keys
//                     ascend by their UTF-16 units
//
// Value 5 of a dictionary {"a": 5}:
//   "VardellValue" 01000000 | 0A 01000000 | 01000000 61 | 03 0500000000000000
//
// The header is long enough for zlib to need less than twice an archive's length. Pure functions,
// for any thread; nothing blocks.
#pragma once

#include <QByteArray>
#include <QVariant>
#include <optional>

namespace vardell {

// Absent for a value that PropertyList.h does not name (characters that XML forbids are kept, lone
// surrogates are not), one nested more than kMaxPropertyListDepth containers deep, and one of more
// than kMaxArchiveNodes values and keys or, written, kMaxArchiveBytes.
[[nodiscard]] std::optional<QByteArray> WriteObjectArchive(const QVariant& value);

// Absent for anything but exactly one such archive within the same bounds. The value shares no
// memory with `bytes`.
[[nodiscard]] std::optional<QVariant> ReadObjectArchive(const QByteArray& bytes);

}  // namespace vardell
