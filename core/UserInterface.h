// The agent's windows and its status item, behind the callbacks by which the rest of core asks for
// them. Main thread only.
#pragma once

#include "core/Agent.h"

namespace vardell {

class UserInterfaceWindows {
 public:
  // Fills in agent.ui, and takes it back when it goes. It outlives this.
  explicit UserInterfaceWindows(Agent& agent);
  ~UserInterfaceWindows();
  UserInterfaceWindows(const UserInterfaceWindows&) = delete;
  UserInterfaceWindows& operator=(const UserInterfaceWindows&) = delete;

 private:
  void InstallAlerts();

  MessageHost MakeMessageHost();
  void ShowCurfewAlert(const QString& text);

  Agent& agent_;
};

}  // namespace vardell
