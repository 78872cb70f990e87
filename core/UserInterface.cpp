#include "core/UserInterface.h"

#include <utility>

#include "core/EnforcementTick.h"
#include "ui/StopAlert.h"

namespace vardell {
namespace {

constexpr std::int32_t kRefreshesOfOpenMenu = 60;

AlertOptions MakeAlertOptions(const Agent& agent) {
  return {agent.autoHideAlerts, agent.playAlertsSound, agent.dontFadeScreen};
}

}  // namespace

UserInterfaceWindows::UserInterfaceWindows(Agent& agent, StatusBar& statusBar)
    : agent_(agent), statusBar_(statusBar) {
  InstallAlerts();
  InstallOverlay();
  InstallStatusItem();
  InstallLockBadge();
}

UserInterfaceWindows::~UserInterfaceWindows() {
  agent_.ui = {};
}

MessageHost UserInterfaceWindows::MakeMessageHost() {
  return {agent_.platform.screens,
          MakeAlertOptions(agent_),
          [this] { agent_.tickTimer.BeginMessage(); },
          [this] { agent_.tickTimer.EndMessage(); },
          [this] { HideLockBadge(lockBadge_.get()); },
          [this] { ShowLockBadge(lockBadge_.get()); }};
}

void UserInterfaceWindows::InstallAlerts() {
  agent_.ui.showCreditAlert = [this](const WatchedAppPtr& entry, CreditAlertKind kind) {
    ShowCreditAlert(entry, kind, {agent_.platform.screens, MakeAlertOptions(agent_)});
  };
  agent_.ui.showCurfewAlert = [this](const QString& text) { ShowCurfewAlert(text); };
  agent_.ui.showMessage = [this](const QString& key) {
    ShowFullScreenMessage(key, true, MakeMessageHost());
  };
  agent_.ui.lockScreen = [this] { LockScreen(MakeMessageHost()); };
  agent_.ui.dismissMessage = DismissFullScreenMessage;
}

void UserInterfaceWindows::ShowCurfewAlert(const QString& text) {
  if (agent_.dontFadeScreen) {
    ShowStopAlert(text, MakeAlertOptions(agent_));
  } else {
    ShowFullScreenMessage(text, true, MakeMessageHost());
  }
}

void UserInterfaceWindows::InstallOverlay() {
  agent_.ui.createOverlay = [this] {
    overlay_ = CreateCreditOverlay(
        {agent_.watchedApps, [this] { return agent_.platform.frontApplication.FrontPid(); },
         [this] { return agent_.diskQuota.warningCounter; }},
        agent_.platform.screens);
  };
  agent_.ui.showOverlay = [this] {
    if (overlay_) ShowCreditOverlay(*overlay_);
  };
  agent_.ui.redrawOverlay = [this] {
    if (overlay_) RedrawCreditOverlay(*overlay_);
  };
  agent_.ui.countDownOverlay = [this] {
    if (overlay_) CountDownCreditOverlay(*overlay_);
  };
}

void UserInterfaceWindows::MakeStatusItem() {
  if (agent_.isSystem103) return;
  agent_.statusRefreshCountdown = 0;
  statusItem_ = CreateStatusItem({statusBar_,
                                  [this] {
                                    RefreshStatusCredits(agent_);
                                    agent_.statusRefreshCountdown = kRefreshesOfOpenMenu;
                                  },
                                  [this] { QueueLockScreen(agent_); }});
}

void UserInterfaceWindows::InstallStatusItem() {
  agent_.ui.createStatusItem = [this] { MakeStatusItem(); };
  agent_.ui.toggleStatusItem = [this] {
    if (statusItem_) ToggleStatusItem(*statusItem_);
  };
  agent_.ui.setAppCreditLine = [this](std::int32_t pid, const QString& name, double credit) {
    if (statusItem_) SetAppCreditLine(*statusItem_, pid, name, credit);
  };
  agent_.ui.removeAppCreditLine = [this](std::int32_t pid) {
    if (statusItem_) RemoveAppCreditLine(*statusItem_, pid);
  };
  agent_.ui.hasAppCreditLine = [this](std::int32_t pid) {
    return statusItem_ && HasAppCreditLine(*statusItem_, pid);
  };
  agent_.ui.setDiskLine = [this](bool enabled, std::uint64_t limit, std::uint64_t usage) {
    if (statusItem_) SetDiskLine(*statusItem_, enabled, limit, usage);
  };
}

void UserInterfaceWindows::InstallLockBadge() {
  agent_.ui.createLockBadge = [this] {
    lockBadge_ = CreateLockBadge(agent_.platform.screens, [this](std::function<void()> dismissed) {
      QueueLockScreen(agent_, std::move(dismissed));
    });
  };
}

}  // namespace vardell
