// The full-screen message, which is also the lock screen. Main thread only; returns when the
// message has been dismissed by a click (or has hidden itself), and runs the event loop meanwhile.
#pragma once

#include <QString>
#include <functional>

#include "platform/Screens.h"
#include "ui/CreditAlert.h"

namespace vardell {

struct MessageHost {
  Screens& screens;
  AlertOptions options;
  // Called in pairs: before the message is shown and after it has gone, and in between where
  // another program keeps the input from the message for longer than kSecondsWithoutInput in all:
  // then the count goes on until the input is held.
  std::function<void()> suspendTick;
  std::function<void()> resumeTick;
  // In pairs too, and possibly nested. May be empty.
  std::function<void()> hideLockBadge = {};
  std::function<void()> showLockBadge = {};
};

inline constexpr int kSecondsWithoutInput = 5;

// `key` is localised; a text that is no key is shown as it stands. `withTimers` obeys the auto-hide
// and sound preferences.
void ShowFullScreenMessage(const QString& key, bool withTimers, const MessageHost& host);

// Takes away the message that is up, as a click would. A lock over it stays, and goes first.
// Nothing where no message is up.
void DismissFullScreenMessage();

// "This computer is locked", without timers.
void LockScreen(const MessageHost& host);

}  // namespace vardell
