#include "core/EventHandlers.h"

#include <algorithm>

#include "core/EnforcementTick.h"

namespace vardell {
namespace {

void RemoveTerminated(Agent& agent, const ProcessSerialNumber& process) {
  if (process.pid == 0) return;
  const WatchedAppTable before = agent.watchedApps;
  RemoveWatchedAppForProcess(process, agent.watchedApps);
  for (const WatchedAppPtr& entry : before) {
    if (std::find(agent.watchedApps.begin(), agent.watchedApps.end(), entry) ==
        agent.watchedApps.end()) {
      agent.alerts.DropAlertsOf(*entry);
    }
  }
  if (agent.ui.hasAppCreditLine && agent.ui.hasAppCreditLine(process.pid)) {
    Tell(agent.ui.removeAppCreditLine, process.pid);
  }
}

}  // namespace

std::int32_t HandleSessionEvent(Agent& agent, const Event& event) {
  switch (event.kind) {
    case kEventSystemUserSessionActivated:
      agent.tickTimer.SetSessionAway(false);
      agent.alerts.SetSessionActive(true);
      return kNoError;
    case kEventSystemUserSessionDeactivated:
      agent.tickTimer.SetSessionAway(true);
      agent.alerts.SetSessionActive(false);
      return kNoError;
    default:
      return kEventNotHandled;
  }
}

std::int32_t HandleApplicationEvent(Agent& agent, const Event& event) {
  switch (event.kind) {
    case kEventAppLaunched:
      if (AddWatchedApp(MakeWatchContext(agent), event.process, agent.watchedApps)) {
        Tell(agent.ui.showOverlay);
      }
      return kNoError;
    case kEventAppTerminated:
      RemoveTerminated(agent, event.process);
      return kNoError;
    default:
      return kEventNotHandled;
  }
}

std::int32_t HandleFrontSwitchEvent(Agent& agent, const Event& event) {
  if (event.kind != kEventAppFrontSwitched) return kEventNotHandled;
  Tell(agent.ui.redrawOverlay);
  return kNoError;
}

std::int32_t HandleHotKeyEvent(Agent& agent, const Event& event) {
  if (event.kind != kEventHotKeyPressed) return kEventNotHandled;
  if (event.hotKey.id == kShowOverlayHotKey.id) {
    Tell(agent.ui.showOverlay);
  } else if (event.hotKey.id == kStatusItemHotKey.id) {
    if (agent.isSystem103) {
      QueueLockScreen(agent);
    } else {
      Tell(agent.ui.toggleStatusItem);
    }
  }
  return kNoError;
}

void InstallEventHandlers(Agent& agent) {
  agent.platform.session.Watch([&agent](bool active) {
    (void)HandleSessionEvent(
        agent, {kEventClassSystem,
                active ? kEventSystemUserSessionActivated : kEventSystemUserSessionDeactivated,
                {},
                {}});
  });
  agent.platform.processes.Watch(
      [&agent](const ProcessSerialNumber& process) {
        (void)HandleApplicationEvent(agent,
                                     {kEventClassApplication, kEventAppLaunched, process, {}});
      },
      [&agent](const ProcessSerialNumber& process) {
        (void)HandleApplicationEvent(agent,
                                     {kEventClassApplication, kEventAppTerminated, process, {}});
      });
  agent.platform.frontApplication.Watch([&agent] {
    (void)HandleFrontSwitchEvent(agent, {kEventClassApplication, kEventAppFrontSwitched, {}, {}});
  });
}

void RegisterHotKeys(Agent& agent) {
  (void)agent.platform.hotKeys.Register(kShowOverlayHotKey, kKeyCodeC, kControlOption);
  (void)agent.platform.hotKeys.Register(kStatusItemHotKey, kKeyCodeH, kControlOption);
  agent.platform.hotKeys.SetHandler([&agent](HotKeyId hotKey) {
    (void)HandleHotKeyEvent(agent, {kEventClassKeyboard, kEventHotKeyPressed, {}, hotKey});
  });
}

}  // namespace vardell
