// Windows that no other program on the screen gets rid of or moves away. Main thread only.
#pragma once

#include <QEvent>
#include <QRect>
#include <QTimer>
#include <QWidget>
#include <QWindow>
#include <utility>

#include "platform/MainDisplay.h"
#include "platform/Screens.h"

namespace vardell {

inline constexpr int kAnswerMs = 50;  // so that a fight over a window costs little

// A window that comes back, made anew, when another program has destroyed or hidden it.
template <typename Widget>
class Kept : public Widget {
 protected:
  // Puts the window, which has no native one now, on the screen again.
  virtual void Return() { this->show(); }
  // False: it stays away until ReturnIfLost() is called.
  virtual bool MayReturn() const { return true; }
  // Puts the window where it is to be.
  virtual void Follow() {}

  void ReturnIfLost() {
    if (!IsLost()) return;
    this->hide();
    this->destroy();
    Return();
  }

  // Not from inside an event, which comes through the native window.
  void AnswerSoon() {
    if (std::exchange(answering_, true)) return;
    QTimer::singleShot(kAnswerMs, this, [this] {
      answering_ = false;
      if (!IsLost())
        Follow();
      else if (MayReturn())
        ReturnIfLost();
    });
  }

  bool event(QEvent* event) override {
    if (event->type() == kWindowTouched) AnswerSoon();
    return Widget::event(event);
  }

 private:
  bool IsLost() const {
    const QWindow* window = this->windowHandle();
    return this->isVisible() && !(window && window->isExposed());
  }

  bool answering_ = false;
};

// A window without a frame that also keeps its place on the main display.
class KeptWindow : public Kept<QWidget> {
 public:
  KeptWindow() {
    WatchMainDisplay(this, [this] { AnswerSoon(); });
  }

 protected:
  // Empty where there is no display to be on.
  virtual QRect Place() const = 0;

  void Follow() final {
    const QRect place = Place();
    if (place.isEmpty()) return;
    setGeometry(place);
    // Also where the window is there as far as the toolkit knows, which swallows what brings a
    // window back to where it saw it last.
    if (windowHandle() && windowHandle()->handle()) windowHandle()->setGeometry(place);
  }
};

}  // namespace vardell
