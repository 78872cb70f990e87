// Warnings of credit that runs low or has run out. Main thread only; ShowCreditAlert returns when
// the warning has been dismissed, and runs the event loop meanwhile.
#pragma once

#include <QString>
#include <cstdint>

#include "limits/WatchedApps.h"

namespace vardell {

enum class CreditAlertKind : std::int8_t {
  Low = 0,       // one minute left
  Disco = 1,     // spent: the application ends when this is dismissed
  DiscoIn5 = 2,  // five minutes left
};

// The preferences that alerts obey, read when one is shown.
struct AlertOptions {
  bool autoHideAlerts = false;
  bool playAlertsSound = false;
  bool dontFadeScreen = false;
};

// "your session" (localised) for the login window, otherwise the display name.
QString ShownName(const WatchedApp& record);

// The localised sentence of `kind`, with the display name and the shown name as its arguments.
QString CreditAlertText(const WatchedApp& record, CreditAlertKind kind);

void ShowCreditAlert(const WatchedAppPtr& record, CreditAlertKind kind,
                     const AlertOptions& options);

// The sentence that names the hour from which, or since which, an application may not run;
// `minutes` since midnight, shown in the locale's short form.
QString CurfewAlertText(bool isEarly, const WatchedApp& record, std::int32_t minutes);

}  // namespace vardell
