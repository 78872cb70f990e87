// The agent's windows and its status item, behind the callbacks by which the rest of core asks for
// them. Main thread only.
#pragma once

#include <memory>

#include "core/Agent.h"
#include "platform/StatusBar.h"
#include "ui/CreditOverlay.h"
#include "ui/LockBadge.h"
#include "ui/StatusItem.h"

namespace vardell {

class UserInterfaceWindows {
 public:
  // Fills in agent.ui, and takes it back when it goes. Both outlive this.
  UserInterfaceWindows(Agent& agent, StatusBar& statusBar);
  ~UserInterfaceWindows();
  UserInterfaceWindows(const UserInterfaceWindows&) = delete;
  UserInterfaceWindows& operator=(const UserInterfaceWindows&) = delete;

 private:
  void InstallAlerts();
  void InstallOverlay();
  void InstallStatusItem();
  void InstallLockBadge();

  MessageHost MakeMessageHost();
  void ShowCurfewAlert(const QString& text);
  void MakeStatusItem();

  Agent& agent_;
  StatusBar& statusBar_;
  std::unique_ptr<CreditOverlay> overlay_;
  std::unique_ptr<StatusItem> statusItem_;  // none on a system that has no status bar for it
  std::unique_ptr<LockBadge> lockBadge_;    // none where it is not wanted
};

}  // namespace vardell
