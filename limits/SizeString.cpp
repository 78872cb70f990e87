#include "limits/SizeString.h"

#include "Common Sources/Localization.h"

namespace vardell {

namespace {

constexpr std::uint64_t kUnknown16 = 0xffff;
constexpr std::uint64_t kUnknown32 = 0xffffffff;

QString WithUnit(const QString& number, const QString& unit) {
  return number + QLatin1Char(' ') + unit;
}

QString Hundredths(std::uint64_t bytes, float divisor) {
  return QString::asprintf("%.2f", static_cast<double>(static_cast<float>(bytes) / divisor));
}

}  // namespace

QString CopySizeString(std::uint64_t bytes) {
  if (bytes == kUnknown32 || bytes == kUnknown16) return QStringLiteral("--");
  if (bytes <= 1023) {
    static const QString unit = Localized("B");
    return WithUnit(QString::number(bytes), unit);
  }
  if (bytes <= 1048575) {
    static const QString unit = Localized("KB");
    return WithUnit(QString::number(bytes / 1024), unit);
  }
  if (bytes <= 1073741823) {
    static const QString unit = Localized("MB");
    return WithUnit(Hundredths(bytes, 1048576.0f), unit);
  }
  static const QString unit = Localized("GB");
  return WithUnit(Hundredths(bytes, 1073741824.0f), unit);
}

}  // namespace vardell
