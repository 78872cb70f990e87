#include "ui/CreditAlert.h"

#include <QLocale>
#include <QTime>

#include "Common Sources/Localization.h"
#include "ui/StopAlert.h"

namespace vardell {

namespace {

constexpr std::int32_t kMinutesOfDay = 24 * 60;

const char* FormatKey(CreditAlertKind kind) {
  switch (kind) {
    case CreditAlertKind::Disco:
      return "Credit low format disco";
    case CreditAlertKind::DiscoIn5:
      return "Credit low format disco in 5";
    case CreditAlertKind::Low:
      break;
  }
  return "Credit low format";
}

bool IsKnown(CreditAlertKind kind) {
  return kind == CreditAlertKind::Low || kind == CreditAlertKind::Disco ||
         kind == CreditAlertKind::DiscoIn5;
}

}  // namespace

QString ShownName(const WatchedApp& record) {
  const bool isSession = record.identifier == QLatin1String(kLoginWindowIdentifier);
  return isSession ? Localized("your session") : record.displayName;
}

QString CreditAlertText(const WatchedApp& record, CreditAlertKind kind) {
  return FormatLocalized(Localized(FormatKey(kind)), {record.displayName, ShownName(record)});
}

void ShowCreditAlert(const WatchedAppPtr& record, CreditAlertKind kind,
                     const AlertOptions& options) {
  if (record && IsKnown(kind)) ShowStopAlert(CreditAlertText(*record, kind), options);
}

QString CurfewAlertText(bool isEarly, const WatchedApp& record, std::int32_t minutes) {
  const std::int32_t ofDay = ((minutes % kMinutesOfDay) + kMinutesOfDay) % kMinutesOfDay;
  const QString time = QLocale().toString(QTime(ofDay / 60, ofDay % 60), QLocale::ShortFormat);
  return FormatLocalized(Localized(isEarly ? "Curfew early error" : "Curfew late error"),
                         {record.displayName, time});
}

}  // namespace vardell
