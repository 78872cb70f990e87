// The standard stop alert: a sentence, "Click to continue" and one button, over everything else.
// Main thread only; returns when it has been dismissed, and runs the event loop meanwhile.
#pragma once

#include <QString>
#include <QTimer>
#include <functional>

#include "ui/CreditAlert.h"

namespace vardell {

// `text` is shown as it stands, never as markup. Obeys the auto-hide and sound preferences.
void ShowStopAlert(const QString& text, const AlertOptions& options);

// The timers of an alert or message that is up; they stand still once this has gone.
class AlertTimers {
 public:
  // After 60 s `hide` is called, once, where `options` hide alerts; every 3 s there is a beep where
  // they sound.
  AlertTimers(const AlertOptions& options, std::function<void()> hide);

 private:
  QTimer hide_;
  QTimer beep_;
};

}  // namespace vardell
