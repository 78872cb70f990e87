#include <cmath>
#include <limits>

#include "Common Sources/PropertyList.h"

namespace vardell {

namespace {

template <typename Integer>
Integer Saturate(double value) {
  if (std::isnan(value)) return 0;
  if (value <= static_cast<double>(std::numeric_limits<Integer>::min())) {
    return std::numeric_limits<Integer>::min();
  }
  if (value >= static_cast<double>(std::numeric_limits<Integer>::max())) {
    return std::numeric_limits<Integer>::max();
  }
  return static_cast<Integer>(value);
}

template <typename Integer>
std::optional<Integer> NumberAs(const QVariant& value) {
  switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
      return static_cast<Integer>(value.toLongLong());
    case QMetaType::UInt:
    case QMetaType::ULongLong:
      return static_cast<Integer>(value.toULongLong());
    case QMetaType::Double:
      return Saturate<Integer>(value.toDouble());
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<double> NumberAsDouble(const QVariant& value) {
  switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
      return static_cast<double>(value.toLongLong());
    case QMetaType::UInt:
    case QMetaType::ULongLong:
      return static_cast<double>(value.toULongLong());
    case QMetaType::Double:
      return value.toDouble();
    default:
      return std::nullopt;
  }
}

std::optional<std::int32_t> NumberAsInt32(const QVariant& value) {
  return NumberAs<std::int32_t>(value);
}

std::optional<std::int8_t> NumberAsInt8(const QVariant& value) {
  return NumberAs<std::int8_t>(value);
}

std::optional<bool> BooleanValue(const QVariant& value) {
  if (value.typeId() != QMetaType::Bool) return std::nullopt;
  return value.toBool();
}

std::int32_t StringIntValue(const QString& text) {
  qsizetype i = 0;
  while (i < text.size() && text[i].isSpace()) ++i;
  const bool isNegative = i < text.size() && text[i] == u'-';
  if (i < text.size() && (text[i] == u'-' || text[i] == u'+')) ++i;
  std::int64_t number = 0;
  for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) {
    number = number * 10 + (text[i].unicode() - u'0');
    if (number > std::int64_t{1} << 32) break;
  }
  return Saturate<std::int32_t>(static_cast<double>(isNegative ? -number : number));
}

}  // namespace vardell
