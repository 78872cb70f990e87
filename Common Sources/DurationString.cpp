#include "Common Sources/DurationString.h"

#include "Common Sources/Localization.h"

namespace vardell {

namespace {

QString Counted(std::int32_t number, const char* unit, bool plural) {
  return QString::number(number) + QLatin1Char(' ') + Localized(unit) +
         QLatin1String(plural ? "s" : "");
}

}  // namespace

QString CopyDurationString(std::int32_t value, std::int32_t mode) {
  const std::int32_t rest = value % 60;
  switch (mode) {
    case kDurationMinutes: {
      const QString hours =
          value < 60 ? QString() : Counted(value / 60, "hour", value >= 120) + QLatin1Char(' ');
      return hours + Counted(rest, "minute", rest > 1);
    }
    case kDurationSeconds:
      return Counted(rest, "second", rest > 1);
    default:
      return {};
  }
}

}  // namespace vardell
