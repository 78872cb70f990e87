// A padlock of 16 by 20 pixels in the top left corner of the main display. A double click on it
// makes it blink for three seconds and then locks the screen. Main thread only; nothing blocks.
#pragma once

#include <QTimer>
#include <functional>
#include <memory>

#include "platform/Screens.h"
#include "ui/KeptWindow.h"

namespace vardell {

// Queues the lock screen and returns at once; `dismissed` is called when the lock has gone.
using LockRequest = std::function<void(std::function<void()> dismissed)>;

class LockBadge : public KeptWindow {
 public:
  LockBadge(Screens& screens, LockRequest lockScreen);

  void ShowWindow();
  void HideWindow();
  void Toggle();

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  QRect Place() const override;
  void Return() override;

 private:
  void Shape();
  void Redraw();
  void Blink();
  void Lock();

  Screens& screens_;
  LockRequest lockScreen_;
  bool badgeVisible_ = true;  // the padlock in the window
  bool lockArmed_ = false;    // from the double click until the lock has gone
  bool lockPending_ = false;  // the countdown has ended: the blinking does at its next turn
  int hides_ = 0;
  QTimer blink_;
  QTimer countdown_;
};

// Shown at once.
std::unique_ptr<LockBadge> CreateLockBadge(Screens& screens, LockRequest lockScreen);

// Of the window; nothing where there is no badge. In pairs: messages over messages hide it twice.
void ShowLockBadge(LockBadge* badge);
void HideLockBadge(LockBadge* badge);
// Of the padlock in it.
void ToggleLockBadge(LockBadge& badge);

}  // namespace vardell
