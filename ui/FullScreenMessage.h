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
  std::function<void()> suspendTick;         // called before the message is shown
  std::function<void()> resumeTick;          // called after it has gone
  std::function<void()> hideLockBadge = {};  // may be empty, as the next
  std::function<void()> showLockBadge = {};
};

// `key` is localised; a text that is no key is shown as it stands. `withTimers` obeys the auto-hide
// and sound preferences.
void ShowFullScreenMessage(const QString& key, bool withTimers, const MessageHost& host);

// Takes away the message that is up, as a click would. Nothing where none is up.
void DismissFullScreenMessage();

// "This computer is locked", without timers.
void LockScreen(const MessageHost& host);

}  // namespace vardell
