// Warnings of credit that runs low or has run out. Main thread only; ShowCreditAlert returns when
// the warning has been dismissed, and runs the event loop meanwhile.
#pragma once

#include <QString>
#include <cstdint>

#include "limits/WatchedApps.h"
#include "platform/Screens.h"

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

struct AlertHost {
  Screens& screens;
  AlertOptions options;
};

// "your session" (localised) for the login window, otherwise the display name.
QString ShownName(const WatchedApp& record);

// The localised sentence of `kind`, with the display name and the shown name as its arguments.
QString CreditAlertText(const WatchedApp& record, CreditAlertKind kind);

// What a panel that was queued with `kind` shows while its entry has that credit: five minutes turn
// into the last one.
CreditAlertKind CreditPanelKind(CreditAlertKind kind, std::int32_t credit);

// The standard stop alert where the screen is not to fade, otherwise a panel over all screens,
// which looks at the entry once a second. An unknown kind shows nothing in the first form and reads
// as Low in the second; a null record shows nothing.
void ShowCreditAlert(const WatchedAppPtr& record, CreditAlertKind kind, const AlertHost& host);

// The sentence that names the hour from which, or since which, an application may not run;
// `minutes` since midnight, shown in the locale's short form.
QString CurfewAlertText(bool isEarly, const WatchedApp& record, std::int32_t minutes);

}  // namespace vardell
