#include "ui/FullScreenMessage.h"

#include <QTimer>
#include <memory>
#include <utility>

#include "Common Sources/Localization.h"
#include "Common Sources/TestHooks.h"
#include "ui/MessagePanel.h"
#include "ui/StopAlert.h"

namespace vardell {

namespace {

void Call(const std::function<void()>& function) {
  if (function) function();
}

// The tick stands still while this lives, as long as the message has the input: who keeps it away
// goes on using what is counted.
class SuspendedTick {
 public:
  explicit SuspendedTick(const MessageHost& host) : host_(host) {
    Set(true);
    look_.setTimerType(Qt::PreciseTimer);
    QObject::connect(&look_, &QTimer::timeout, [this] { Look(); });
    look_.start(SecondLength());
  }
  ~SuspendedTick() { Set(false); }
  SuspendedTick(const SuspendedTick&) = delete;
  SuspendedTick& operator=(const SuspendedTick&) = delete;

 private:
  // Not counted anew each time: short losses add up.
  void Look() {
    if (host_.screens.HoldsInput())
      Set(true);
    else if (++secondsWithout_ > kSecondsWithoutInput)
      Set(false);
  }
  void Set(bool suspended) {
    if (std::exchange(suspended_, suspended) == suspended) return;
    Call(suspended ? host_.suspendTick : host_.resumeTick);
  }

  const MessageHost& host_;
  bool suspended_ = false;
  int secondsWithout_ = 0;
  QTimer look_;
};

void ShowMessage(PanelUse use, const QString& key, const AlertOptions& options,
                 const MessageHost& host) {
  const QString text = Localized(key.toUtf8().constData());
  MessagePanel* below = MessagePanel::Topmost();
  auto panel = std::make_unique<MessagePanel>(
      use, kMessageColour, [text] { return text; }, host.screens, below);
  const SuspendedTick suspended(host);
  panel->TakeScreens();
  panel->Appear();
  Call(host.hideLockBadge);
  {
    const AlertTimers timers(options, [&panel] { panel->Dismiss(); });
    panel->RunModally();
  }
  panel->LeaveUIMode();
  EndScreenFade(true, false);
  panel.reset();
  CleanUpScreenFade();
  MessagePanel::LeaveDisplays(host.screens, below);
  Call(host.showLockBadge);
}

}  // namespace

void ShowFullScreenMessage(const QString& key, bool withTimers, const MessageHost& host) {
  ShowMessage(PanelUse::Message, key, withTimers ? host.options : AlertOptions{}, host);
}

void DismissFullScreenMessage() {
  MessagePanel* panel = MessagePanel::Topmost();
  while (panel && panel->Use() != PanelUse::Message) panel = panel->Below();
  if (panel) panel->Dismiss();
}

void LockScreen(const MessageHost& host) {
  ShowMessage(PanelUse::Lock, QStringLiteral("This computer is locked"), {}, host);
}

}  // namespace vardell
