#include "core/EnforcementTick.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <thread>

#include "Common Sources/Caps.h"
#include "Common Sources/TimeZones.h"
#include "limits/Curfew.h"
#include "link/MessageEncoding.h"
#include "link/RequestExchange.h"

namespace vardell {
namespace {

constexpr int kFirstRetryPause = 5;
constexpr int kLongestRetryPause = 60;
constexpr std::int16_t kReportTimeout = 3;

bool IsSession(const WatchedApp& entry) {
  return entry.identifier == QLatin1String(kLoginWindowIdentifier);
}

bool IsGlobalSettings(const WatchedApp& entry) {
  return entry.identifier == QLatin1String(kGlobalSettingsIdentifier);
}

std::int32_t CreditLineKey(const WatchedApp& entry) {
  return IsSession(entry) ? -1 : entry.pid;
}

bool IsInTable(const Agent& agent, const WatchedAppPtr& entry) {
  return std::find(agent.watchedApps.begin(), agent.watchedApps.end(), entry) !=
         agent.watchedApps.end();
}

void ForgetEntry(Agent& agent, const WatchedApp& entry) {
  Tell(agent.ui.removeAppCreditLine, CreditLineKey(entry));
  agent.alerts.DropAlertsOf(entry);
}

void Report(Agent& agent, const QString& identifier, const LimitsRecord& limits) {
  const QByteArray payload = AppendLimitsRecordToData(agent.currentUserName, identifier, limits);
  (void)SendRequest(agent.link, RequestKind::CreditReport, payload, kReportTimeout, false, nullptr);
}

// Never -1, which would say that the application had its end.
void ClaimMinutes(Agent& agent, const WatchedApp& entry, std::int64_t minutes) {
  if (entry.limits.credit == kSpentCredit) return;
  LimitsRecord record = entry.limits;
  record.credit = static_cast<std::int32_t>(std::max<std::int64_t>(0, record.credit - minutes));
  Report(agent, entry.identifier, record);
}

// True when the Server no longer watches the identifier. A report may get lost with its connection,
// and who answers on the next one may be another Server, which owes nothing to the first: the
// minute is claimed there. No Server takes more than have passed.
bool ReportAndRefresh(Agent& agent, WatchedApp& entry) {
  const bool isMinute = entry.limits.credit >= 0;
  Report(agent, entry.identifier, entry.limits);
  const std::shared_ptr<StreamPair> reportedOn = agent.link.shared;
  const WatchContext context = MakeWatchContext(agent);
  const bool unwatched = RefreshWatchedApp(context, entry, !entry.lastMinuteUsed);
  if (unwatched || !isMinute || agent.link.shared == reportedOn) return unwatched;
  ClaimMinutes(agent, entry, 1);
  return RefreshWatchedApp(context, entry, !entry.lastMinuteUsed);
}

void SpendLastMinute(Agent& agent, WatchedApp& entry) {
  entry.held = false;
  entry.limits.credit = 1;
  EndWatchedApp(agent, entry);
}

void EndAfterAlert(Agent& agent, const WatchedAppPtr& entry) {
  if (!entry->held || !IsInTable(agent, entry)) return;
  SpendLastMinute(agent, *entry);
  --entry->limits.credit;
  (void)ReportAndRefresh(agent, *entry);
  std::erase(agent.watchedApps, entry);
  ForgetEntry(agent, *entry);
}

// Who leads the session may have become known, or have changed, since the entry was made.
std::int32_t SessionPid(Agent& agent) {
  const SystemVersion version = agent.platform.system.Version();
  const bool isLedByWindowServer = version.major == 10 && version.minor >= 11;
  const std::int32_t leader = isLedByWindowServer ? 0 : agent.platform.session.LeaderPid();
  if (leader > 0) agent.loginPid = leader;
  return agent.loginPid;
}

void CheckCurfewOf(Agent& agent, const WatchedAppPtr& entry) {
  CurfewActions actions;
  actions.localNow = LocalNow;
  actions.showAlert = [&agent](const WatchedAppPtr& about, bool isEarly, std::int32_t minutes,
                               std::function<void()> dismissed) {
    QueueCurfewAlert(agent, about, isEarly, minutes,
                     [&agent, about, dismissed = std::move(dismissed)] {
                       if (IsInTable(agent, about)) dismissed();
                     });
  };
  actions.killProcess = [&agent](std::int32_t pid) { KillProcess(agent.link, pid); };
  actions.loginPid = [&agent] { return SessionPid(agent); };
  CheckCurfew(entry, actions);
}

void QueueDiskMessage(Agent& agent, const QString& text, std::function<void()> dismissed) {
  QueuedAlert message;
  message.show = [&agent, text] { Tell(agent.ui.showMessage, text); };
  message.dismissed = std::move(dismissed);
  // Over a window that nobody clicks away: the quota waits for this message to be seen.
  agent.alerts.EnqueueCover(std::move(message));
}

void CheckDiskQuotaOf(Agent& agent, const WatchedAppPtr& entry) {
  DiskQuotaActions actions;
  actions.measure = [&agent](HomeFolderMeasurement::Deliver deliver) {
    (void)agent.homeFolder.Start(std::move(deliver));
  };
  actions.showMessage = [&agent](const QString& text, std::function<void()> dismissed) {
    QueueDiskMessage(agent, text, std::move(dismissed));
  };
  actions.loginPid = [&agent] { return SessionPid(agent); };
  actions.endWatchedApp = [&agent](const WatchedApp& session) { EndWatchedApp(agent, session); };
  actions.setDiskLine = agent.ui.setDiskLine;
  CheckDiskQuota(entry, agent.diskQuota, actions);
}

void RememberLost(Agent& agent, const WatchedAppPtr& entry) {
  if (agent.lostApps.size() < kMaxLostApps) agent.lostApps.push_back({entry});
}

// True when the entry is to be removed.
bool CheckMinute(Agent& agent, const WatchedAppPtr& entry) {
  if (IsGlobalSettings(*entry)) CheckDiskQuotaOf(agent, entry);
  CheckCurfewOf(agent, entry);

  bool remove = false;
  std::int32_t& credit = entry->limits.credit;
  if (credit == 0) {
    EndWatchedApp(agent, *entry);
    remove = true;
  }
  if (credit == 1) {
    QueueCreditAlert(agent, entry, CreditAlertKind::Low, {});
    entry->lastMinuteUsed = true;
  }
  if (credit == 5) QueueCreditAlert(agent, entry, CreditAlertKind::DiscoIn5, {});
  if (credit == kSpentCredit) {
    entry->lastMinuteUsed = true;
    if (!entry->held) {
      entry->held = true;
      QueueCreditAlert(agent, entry, CreditAlertKind::Disco,
                       [&agent, entry] { EndAfterAlert(agent, entry); });
      return false;
    }
    SpendLastMinute(agent, *entry);
    remove = true;
  }
  --credit;
  if (IsGlobalSettings(*entry) || !ReportAndRefresh(agent, *entry)) return remove;
  if (!remove && agent.link.replyMissed) RememberLost(agent, entry);
  return true;
}

void CountSecond(Agent& agent, std::size_t index) {
  const WatchedAppPtr entry = agent.watchedApps[index];
  if (!IsWatchedProcessAlive(agent, *entry)) {
    RemoveEntriesWithPid(agent, entry->pid);
    return;
  }
  if (entry->ticks % 60 == 0 && CheckMinute(agent, entry)) {
    std::erase(agent.watchedApps, entry);
    ForgetEntry(agent, *entry);
    return;
  }
  ++entry->ticks;
}

bool ReachesServer(Agent& agent) {
  if (agent.link.offerAgain) return true;
  // A pair that is still there would answer "connected" without asking the network.
  DropServerConnection(agent.link);
  return ConnectToServer(agent.link) == 0;
}

void CountLostSeconds(Agent& agent) {
  for (LostApp& lost : agent.lostApps) {
    lost.ended = lost.ended || !IsWatchedProcessAlive(agent, *lost.entry);
    if (!lost.ended) ++lost.seconds;
  }
}

// The minutes that were used while nobody answered; the Server takes no more than have passed. To
// be done before the applications are offered: a start that is announced when the paid time is long
// over begins anew. False where the Server still does not answer; what is left is tried again.
bool ClaimLostMinutes(Agent& agent) {
  while (!agent.lostApps.empty()) {
    const LostApp& lost = agent.lostApps.back();
    agent.link.replyMissed = false;
    const bool unwatched = RefreshWatchedApp(MakeWatchContext(agent), *lost.entry, false);
    if (agent.link.replyMissed) return false;
    if (!unwatched) ClaimMinutes(agent, *lost.entry, lost.seconds / 60 + 1);
    agent.lostApps.pop_back();
  }
  return true;
}

void WaitBeforeNextLook(Agent& agent) {
  agent.serverRetryAt = agent.monotonic() + agent.serverRetryPause * agent.secondLength;
}

// A Server that accepts and says nothing would cost every application its time-out: the pause grows
// with each vain offer too.
void LookForLostServer(Agent& agent) {
  if (!agent.link.replyMissed && !agent.link.offerAgain) {
    agent.serverRetryPause = 0;
    return;
  }
  if (agent.serverRetryPause == 0) {
    agent.serverRetryPause = kFirstRetryPause;
    WaitBeforeNextLook(agent);
  }
  if (agent.monotonic() < agent.serverRetryAt) return;
  if (ReachesServer(agent) && ClaimLostMinutes(agent)) {
    agent.link.offerAgain = false;
    OfferRunningApplications(agent);
  }
  agent.serverRetryPause = std::min(2 * agent.serverRetryPause, kLongestRetryPause);
  WaitBeforeNextLook(agent);
}

}  // namespace

bool IsWatchedProcessAlive(Agent& agent, const WatchedApp& entry) {
  if (entry.identifier.compare(QLatin1String(kLoginWindowIdentifier), Qt::CaseInsensitive) == 0) {
    return true;
  }
  return entry.pid == 0 || agent.platform.processes.IsAlive(entry.pid);
}

void EndWatchedApp(Agent& agent, const WatchedApp& entry) {
  if (IsSession(entry) && agent.platform.frontApplication.IsDisplayCaptured()) {
    const std::int32_t front = agent.platform.frontApplication.FrontPid();
    if (front != getpid()) {
      KillProcess(agent.link, front);
      std::this_thread::sleep_for(5 * agent.secondLength);
    }
  }
  KillProcess(agent.link, IsSession(entry) ? SessionPid(agent) : entry.pid);
}

void RemoveEntriesWithPid(Agent& agent, std::int32_t pid) {
  const WatchedAppTable before = agent.watchedApps;
  RemoveWatchedAppsWithPid(pid, agent.watchedApps);
  for (const WatchedAppPtr& entry : before) {
    if (!IsInTable(agent, entry)) ForgetEntry(agent, *entry);
  }
}

void RefreshStatusCredits(Agent& agent) {
  for (const WatchedAppPtr& entry : agent.watchedApps) {
    if (IsGlobalSettings(*entry) || entry->limits.credit == kSpentCredit) continue;
    const std::uint32_t secondsLeft = 60u - entry->ticks;
    Tell(agent.ui.setAppCreditLine, CreditLineKey(*entry), entry->displayName,
         entry->limits.credit + secondsLeft / 100.0);
  }
}

void OfferRunningApplications(Agent& agent) {
  const QString settings = QLatin1String(kGlobalSettingsIdentifier);
  const WatchedAppPtr before = FindWatchedApp(agent.watchedApps, settings);
  std::erase_if(agent.watchedApps, [](const WatchedAppPtr& e) { return IsGlobalSettings(*e); });
  FillWatchedApps(MakeWatchContext(agent), agent.watchedApps);
  const WatchedAppPtr now = FindWatchedApp(agent.watchedApps, settings);
  // A Server that comes and goes does not bring the quota's minutes closer together.
  if (before && now) now->ticks = before->ticks;
}

void EnforcementTick(Agent& agent) {
  if (agent.statusRefreshCountdown > 0) {
    RefreshStatusCredits(agent);
    --agent.statusRefreshCountdown;
  }
  for (std::size_t i = 0; i < agent.watchedApps.size(); ++i) CountSecond(agent, i);
  CountLostSeconds(agent);
  Tell(agent.ui.countDownOverlay);
  LookForLostServer(agent);
}

}  // namespace vardell
