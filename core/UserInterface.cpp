#include "core/UserInterface.h"

#include "ui/StopAlert.h"

namespace vardell {
namespace {

AlertOptions MakeAlertOptions(const Agent& agent) {
  return {agent.autoHideAlerts, agent.playAlertsSound, agent.dontFadeScreen};
}

}  // namespace

UserInterfaceWindows::UserInterfaceWindows(Agent& agent) : agent_(agent) {
  InstallAlerts();
}

UserInterfaceWindows::~UserInterfaceWindows() {
  agent_.ui = {};
}

MessageHost UserInterfaceWindows::MakeMessageHost() {
  return {agent_.platform.screens, MakeAlertOptions(agent_),
          [this] { agent_.tickTimer.BeginMessage(); }, [this] { agent_.tickTimer.EndMessage(); }};
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

}  // namespace vardell
