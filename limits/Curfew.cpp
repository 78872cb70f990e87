#include "limits/Curfew.h"

#include <utility>

namespace vardell {

namespace {

using Kill = CurfewDecision::Kill;

struct Window {
  bool enabled = false;
  std::int32_t start = 0;
  std::int32_t stop = 0;
  Kill earlyTarget = Kill::Session;
};

Window WindowOfTheDay(const LimitsRecord& limits, int dayOfWeek) {
  if (dayOfWeek >= Qt::Saturday) {
    return {limits.weekEndCurfewEnabled != 0, limits.weekEndStart, limits.weekEndStop,
            Kill::Session};
  }
  return {limits.weekDayCurfewEnabled != 0, limits.weekDayStart, limits.weekDayStop, Kill::Entry};
}

void Breach(CurfewDecision& decision, bool isEarly, std::int32_t boundary, Kill target) {
  if (!decision.warned) {
    decision.alert = true;
    decision.alertIsEarly = isEarly;
    decision.boundaryMinutes = boundary;
    decision.warned = true;
    return;
  }
  const bool isSecondKill = decision.kill == Kill::Entry && target == Kill::Session;
  decision.kill = isSecondKill ? Kill::EntryThenSession : target;
  decision.killAfterAlert = decision.alert;
}

bool KillsEntry(Kill kill) {
  return kill == Kill::Entry || kill == Kill::EntryThenSession;
}

bool KillsSession(Kill kill) {
  return kill == Kill::Session || kill == Kill::EntryThenSession;
}

std::function<void()> EndSessionIfPending(const WatchedAppPtr& entry,
                                          const CurfewActions& actions) {
  return [entry, kill = actions.killProcess, loginPid = actions.loginPid] {
    if (std::exchange(entry->curfewKillPending, false)) kill(loginPid());
  };
}

}  // namespace

CurfewDecision DecideCurfew(const LimitsRecord& limits, bool warned, const QDateTime& localNow) {
  CurfewDecision decision;
  decision.warned = warned;
  const Window window = WindowOfTheDay(limits, localNow.date().dayOfWeek());
  if (!window.enabled) return decision;
  const std::int32_t now = localNow.time().hour() * 60 + localNow.time().minute();
  if (now < window.start) Breach(decision, true, window.start, window.earlyTarget);
  if (now + 1 > window.stop) Breach(decision, false, window.stop, Kill::Session);
  return decision;
}

void CheckCurfew(const WatchedAppPtr& entry, const CurfewActions& actions) {
  // Whoever waited a minute for the alert to be seen has waited long enough.
  const bool isOverdue = std::exchange(entry->curfewKillPending, false);
  const CurfewDecision decision =
      DecideCurfew(entry->limits, entry->lastMinuteUsed, actions.localNow());
  entry->lastMinuteUsed = decision.warned;
  entry->curfewKillPending = decision.killAfterAlert;
  if (decision.alert) {
    actions.showAlert(entry, decision.alertIsEarly, decision.boundaryMinutes,
                      EndSessionIfPending(entry, actions));
  }
  if (decision.killAfterAlert) return;
  if (KillsEntry(decision.kill)) actions.killProcess(entry->pid);
  if (isOverdue || KillsSession(decision.kill)) actions.killProcess(actions.loginPid());
}

}  // namespace vardell
