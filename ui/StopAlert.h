// The standard stop alert: a sentence, "Click to continue" and one button, over everything else.
// Main thread only; returns when it has been dismissed, and runs the event loop meanwhile.
#pragma once

#include <QApplication>
#include <QString>
#include <QTimer>
#include <functional>

#include "ui/CreditAlert.h"

namespace vardell {

// `text` is shown as it stands, never as markup. Obeys the auto-hide and sound preferences. A click
// dismisses it at any time. What is being typed when it appears does not: it takes the keyboard a
// second later, and heeds no key in the first second of having it.
void ShowStopAlert(const QString& text, const AlertOptions& options);

// The timers of an alert or message that is up; they stand still once this has gone.
class AlertTimers {
 public:
  // After 60 s `hide` is called, once, where `options` hide alerts; every 3 s `beep` where they
  // sound.
  AlertTimers(const AlertOptions& options, std::function<void()> hide,
              std::function<void()> beep = QApplication::beep);

 private:
  QTimer hide_;
  QTimer beep_;
};

}  // namespace vardell
