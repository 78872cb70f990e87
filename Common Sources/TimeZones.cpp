#include "Common Sources/TimeZones.h"

namespace vardell {

QTimeZone CopyCurrentTimeZone() {
  const QTimeZone zone = QTimeZone::systemTimeZone();
  return zone.isValid() ? zone : QTimeZone::utc();
}

const QTimeZone& GetDefaultTimeZone() {
  static const QTimeZone zone = CopyCurrentTimeZone();
  return zone;
}

}  // namespace vardell
