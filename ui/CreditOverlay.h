// A strip across the top of the main display, in the look of a menu bar, that says what credit the
// application in front has left. It takes no input and no focus, is shown for four ticks, and goes
// on counting down meanwhile. Main thread only; nothing blocks.
#pragma once

#include <QPropertyAnimation>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>

#include "limits/WatchedApps.h"
#include "platform/Screens.h"
#include "ui/KeptWindow.h"

namespace vardell {

// What the line is made of at each redraw; borrowed.
struct CreditOverlayInputs {
  const WatchedAppTable& watchedApps;
  std::function<std::int32_t()> frontPid;        // 0 where no application is in front
  std::function<std::int16_t()> diskQuotaState;  // negative while the home folder is over its quota
};

// The line for the entry of the process in front, or else of the session. It may be empty: an entry
// whose credit is the sentinel has no text.
QString CreditOverlayLine(const WatchedAppTable& watchedApps, std::int32_t frontPid,
                          std::int16_t diskQuotaState);

// The window is as large as the main display, and cut to the strip by its shape: a translucent
// window would be black all over where nothing composes the screen, and compositors come and go.
// It exists on the X server, and has its picture in memory, only while it is up.
class CreditOverlay : public KeptWindow {
 public:
  CreditOverlay(const CreditOverlayInputs& inputs, Screens& screens);

  void Show();
  void Redraw();
  void Hide();
  void CountDown();

 protected:
  void paintEvent(QPaintEvent*) override;
  void resizeEvent(QResizeEvent* event) override;
  QRect Place() const override { return screens_.MainDisplayBounds(); }
  void Return() override;

 private:
  bool IsUp() const;
  void Refresh();
  void TakeAway();

  CreditOverlayInputs inputs_;
  Screens& screens_;
  std::int32_t countdown_ = 0;  // ticks until it is hidden
  QPropertyAnimation fade_;
};

// Made hidden.
std::unique_ptr<CreditOverlay> CreateCreditOverlay(const CreditOverlayInputs& inputs,
                                                   Screens& screens);
// Shows it for four ticks; one that is up is only drawn anew, one that fades comes back.
void ShowCreditOverlay(CreditOverlay& overlay);
void RedrawCreditOverlay(CreditOverlay& overlay);
// Fades it out in a moment from the event loop where the screen is composed, else hides it at once.
void HideCreditOverlay(CreditOverlay& overlay);
// One tick: nothing while it is hidden or fades.
void CountDownCreditOverlay(CreditOverlay& overlay);

}  // namespace vardell
