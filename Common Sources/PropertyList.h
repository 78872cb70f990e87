// XML property lists as QVariant values, and access to the numbers in them.
//
//   dict     QVariantMap     integer  qlonglong; qulonglong above the greatest qlonglong
//   array    QVariantList    real     double
//   string   QString         true, false  bool
//   data     QByteArray      date     QDateTime in UTC, whole seconds
//
// Reading is strict, since documents come from the network and from files that others can write:
// whatever is not exactly one well-formed value is refused as a whole. Writing and reading back
// gives an equal value. Pure functions, for any thread; nothing blocks.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <optional>

namespace vardell {

// Absent for anything but a UTF-8 document of at most kMaxPropertyListBytes with one <plist> around
// one value, nested kMaxPropertyListDepth containers deep at most. Refused too: a document type
// with an internal subset, entities other than XML's own, unknown elements or attributes, a key
// that comes twice, numbers with trailing text or outside 64 bits, impossible dates, loose base64,
// and anything after </plist> but blanks and comments.
[[nodiscard]] std::optional<QVariant> ReadPropertyListXml(const QByteArray& xml);

// Absent for a value that the format cannot hold: an invalid QVariant, another type (int and uint
// are taken as integers), text with a lone surrogate or a character that XML forbids, an invalid
// date or one outside the years 1 to 9999, or what ReadPropertyListXml would refuse as too large or
// too deep. Dates are written in UTC without fractions of a second.
[[nodiscard]] std::optional<QByteArray> WritePropertyListXml(const QVariant& value);

// The number converted as CFNumberGetValue does: a real loses its fraction, an integer that is too
// wide its upper bits. A real outside the range gives the nearest bound, and 0 where it is no
// number. Absent when the value is no number; a bool is none.
[[nodiscard]] std::optional<double> NumberAsDouble(const QVariant& value);
[[nodiscard]] std::optional<std::int32_t> NumberAsInt32(const QVariant& value);
[[nodiscard]] std::optional<std::int8_t> NumberAsInt8(const QVariant& value);

// Absent when the value is no bool.
[[nodiscard]] std::optional<bool> BooleanValue(const QVariant& value);

// Leading blanks, a sign, digits; whatever follows is ignored. 0 where there are no digits, the
// nearest bound where the number is too large.
std::int32_t StringIntValue(const QString& text);

}  // namespace vardell
