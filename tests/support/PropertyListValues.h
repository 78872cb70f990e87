// Strict comparison of property-list values: QVariant's own takes 1, 1.0 and true for equal.
#pragma once

#include <QVariant>
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

namespace vardell::test {

inline bool SameReal(double a, double b) {
  if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
  return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
}

inline bool SameValue(const QVariant& a, const QVariant& b) {
  if (a.typeId() != b.typeId()) return false;
  switch (a.typeId()) {
    case QMetaType::QVariantList: {
      const QVariantList x = a.toList(), y = b.toList();
      return std::equal(x.begin(), x.end(), y.begin(), y.end(), SameValue);
    }
    case QMetaType::QVariantMap: {
      const QVariantMap x = a.toMap(), y = b.toMap();
      return x.keys() == y.keys() && std::equal(x.begin(), x.end(), y.begin(), y.end(), SameValue);
    }
    case QMetaType::Double:
      return SameReal(a.toDouble(), b.toDouble());
    default:
      return a == b;
  }
}

}  // namespace vardell::test
