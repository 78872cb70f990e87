// A padlock of 16 by 20 pixels in the top left corner of the main display. A double click on it
// makes it blink for three seconds and then locks the screen. Main thread only; nothing blocks.
#pragma once

#include <functional>
#include <memory>

#include "platform/Screens.h"

namespace vardell {

class LockBadge;

// Queues the lock screen and returns at once; `dismissed` is called when the lock has gone.
using LockRequest = std::function<void(std::function<void()> dismissed)>;

// Shown at once.
std::unique_ptr<LockBadge> CreateLockBadge(Screens& screens, LockRequest lockScreen);

// Of the window; nothing where there is no badge.
void ShowLockBadge(LockBadge* badge);
void HideLockBadge(LockBadge* badge);
// Of the padlock in it.
void ToggleLockBadge(LockBadge& badge);

}  // namespace vardell
