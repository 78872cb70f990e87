// A property-list value as a keyed archive: a binary property list in the layout of
// "NSKeyedArchiver", which other tools of that format read and write.
//
//   {"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": UID},
//    "$objects": ["$null", object, …]}
//
// Objects name one another by UID, a place in "$objects". Strings, numbers, booleans and data stand
// there as they are; equal strings and equal numbers are one object. The others name their class:
//
//   array       {"NS.objects": [UID…], "$class": UID}
//   dictionary  {"NS.keys": [UID…], "NS.objects": [UID…], "$class": UID}
//   date        {"NS.time": seconds since 1 January 2001, "$class": UID}
//   class       {"$classname": "NSArray", "$classes": ["NSArray", "NSObject"]}
//
// Pure functions, for any thread; nothing blocks.
#pragma once

#include <QByteArray>
#include <QVariant>
#include <optional>

namespace vardell {

// Absent for a value that PropertyList.h does not name (characters that XML forbids are kept, lone
// surrogates are not), one nested more than kMaxPropertyListDepth containers deep, and one above
// kMaxArchiveNodes, kMaxArchiveTextBytes or, written, kMaxArchiveBytes.
[[nodiscard]] std::optional<QByteArray> WriteKeyedArchive(const QVariant& value);

// Absent for anything but one archive in that layout, within the same bounds with every sharing
// undone. The classes known are arrays, dictionaries, strings ("NS.string") and data ("NS.data"),
// mutable or not, and dates. Refused too: other classes, members that are missing or too many,
// references to nothing, to "$null" or in a circle, and keys that are no strings or come twice. The
// value shares no memory with `bytes`.
[[nodiscard]] std::optional<QVariant> ReadKeyedArchive(const QByteArray& bytes);

}  // namespace vardell
