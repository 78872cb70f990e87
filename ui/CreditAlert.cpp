#include "ui/CreditAlert.h"

#include <QLocale>
#include <QTime>
#include <QTimer>
#include <memory>

#include "Common Sources/Localization.h"
#include "Common Sources/TestHooks.h"
#include "ui/MessagePanel.h"
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

void ShowCreditPanel(const WatchedAppPtr& record, CreditAlertKind kind, const AlertHost& host) {
  MessagePanel* below = MessagePanel::Topmost();
  auto panel = std::make_unique<MessagePanel>(
      PanelUse::CreditAlert, kCreditColour,
      [&record, &kind] {
        kind = CreditPanelKind(kind, record->limits.credit);
        return CreditAlertText(*record, kind);
      },
      host.screens, below);
  {
    const AlertTimers timers(host.options, [&panel] { panel->Dismiss(); });
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, panel.get(), &MessagePanel::Refresh);
    look.start(SecondLength());
    panel->TakeScreens();
    panel->Appear();
    panel->RunModally();
    EndScreenFade(true, false);
    panel->LeaveUIMode();
  }
  MessagePanel::LeaveDisplays(host.screens, below);
  panel.reset();
  CleanUpScreenFade();
}

}  // namespace

QString ShownName(const WatchedApp& record) {
  const bool isSession = record.identifier == QLatin1String(kLoginWindowIdentifier);
  return isSession ? Localized("your session") : record.displayName;
}

QString CreditAlertText(const WatchedApp& record, CreditAlertKind kind) {
  return FormatLocalized(Localized(FormatKey(kind)), {record.displayName, ShownName(record)});
}

CreditAlertKind CreditPanelKind(CreditAlertKind kind, std::int32_t credit) {
  return kind == CreditAlertKind::DiscoIn5 && credit <= 1 ? CreditAlertKind::Low : kind;
}

void ShowCreditAlert(const WatchedAppPtr& record, CreditAlertKind kind, const AlertHost& host) {
  if (!record) return;
  if (!host.options.dontFadeScreen)
    ShowCreditPanel(record, kind, host);
  else if (IsKnown(kind))
    ShowStopAlert(CreditAlertText(*record, kind), host.options);
}

QString CurfewAlertText(bool isEarly, const WatchedApp& record, std::int32_t minutes) {
  const std::int32_t ofDay = ((minutes % kMinutesOfDay) + kMinutesOfDay) % kMinutesOfDay;
  const QString time = QLocale().toString(QTime(ofDay / 60, ofDay % 60), QLocale::ShortFormat);
  return FormatLocalized(Localized(isEarly ? "Curfew early error" : "Curfew late error"),
                         {record.displayName, time});
}

}  // namespace vardell
