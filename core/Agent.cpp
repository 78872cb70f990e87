#include "core/Agent.h"

#include <utility>

namespace vardell {

Agent::Agent(const Platform& seams, TickTimer::Clock monotonicClock,
             std::chrono::milliseconds second)
    : platform(seams),
      link(seams.discovery),
      monotonic(std::move(monotonicClock)),
      secondLength(second),
      tickTimer(monotonic, second) {}

std::uint32_t TickCount(const Agent& agent) {
  return static_cast<std::uint32_t>(agent.monotonic() * 60 / agent.secondLength);
}

WatchContext MakeWatchContext(Agent& agent) {
  return {agent.link,
          agent.platform.processes,
          agent.platform.system,
          agent.currentUserName,
          agent.lastMinuteCredit,
          agent.loginPid};
}

void QueueCreditAlert(Agent& agent, const WatchedAppPtr& entry, CreditAlertKind kind,
                      std::function<void()> dismissed) {
  QueuedAlert alert;
  alert.entry = entry;
  alert.replaceable = kind != CreditAlertKind::Disco;
  alert.outlivesEntry = kind == CreditAlertKind::Disco;
  alert.show = [&agent, entry, kind] { Tell(agent.ui.showCreditAlert, entry, kind); };
  alert.dismissed = std::move(dismissed);
  agent.alerts.Enqueue(std::move(alert));
}

void QueueCurfewAlert(Agent& agent, const WatchedAppPtr& entry, bool isEarly,
                      std::int32_t boundaryMinutes, std::function<void()> dismissed) {
  QueuedAlert alert;
  alert.entry = entry;
  alert.show = [&agent, text = CurfewAlertText(isEarly, *entry, boundaryMinutes)] {
    Tell(agent.ui.showCurfewAlert, text);
  };
  alert.dismissed = std::move(dismissed);
  agent.alerts.Enqueue(std::move(alert));
}

void QueueLockScreen(Agent& agent, std::function<void()> dismissed) {
  agent.alerts.EnqueueLock([&agent] { Tell(agent.ui.lockScreen); }, std::move(dismissed));
}

}  // namespace vardell
