// A strip across the top of the main display, in the look of a menu bar, that says what credit the
// application in front has left. It takes no input and no focus, is shown for four ticks, and goes
// on counting down meanwhile. Main thread only; nothing blocks.
#pragma once

#include <QString>
#include <QWidget>
#include <cstdint>
#include <functional>
#include <memory>

#include "limits/WatchedApps.h"
#include "platform/Screens.h"

namespace vardell {

// What the line is made of at each redraw; borrowed.
struct CreditOverlayInputs {
  const WatchedAppTable& watchedApps;
  std::function<std::int32_t()> frontPid;
  std::function<std::int16_t()> diskQuotaState;  // negative while the home folder is over its quota
};

// The line for the entry of the process in front, or else of the session.
QString CreditOverlayLine(const WatchedAppTable& watchedApps, std::int32_t frontPid,
                          std::int16_t diskQuotaState);

class CreditOverlay;

// Made hidden.
std::unique_ptr<CreditOverlay> CreateCreditOverlay(const CreditOverlayInputs& inputs,
                                                   Screens& screens);
// Shows it for four ticks; one that is up is only drawn anew.
void ShowCreditOverlay(CreditOverlay& overlay);
void RedrawCreditOverlay(CreditOverlay& overlay);
void HideCreditOverlay(CreditOverlay& overlay);
// One tick: nothing while it is hidden.
void CountDownCreditOverlay(CreditOverlay& overlay);

}  // namespace vardell
