#include "Common Sources/TimeZones.h"

namespace vardell {

const QTimeZone& GetDefaultTimeZone() {
  static const QTimeZone zone = [] {
    const QTimeZone system = QTimeZone::systemTimeZone();
    return system.isValid() ? system : QTimeZone::utc();
  }();
  return zone;
}

// Not by way of systemTimeZone(), which knows zones by their names only: where the system's is a
// file of its own it answers with another one. The C library reads the file anew when it changed.
QDateTime LocalNow() {
  return QDateTime::currentDateTime();
}

}  // namespace vardell
