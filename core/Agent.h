// The process-wide state of the agent: one record, made in main and passed by reference. Main
// thread only. What it borrows outlives it.
#pragma once

#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "core/TickTimer.h"
#include "limits/DiskQuota.h"
#include "limits/HomeFolderMeasurement.h"
#include "limits/WatchedApps.h"
#include "link/VardellLoader.h"
#include "platform/FrontApplication.h"
#include "platform/HotKeys.h"
#include "platform/Preferences.h"
#include "platform/Screens.h"
#include "platform/Session.h"
#include "ui/AlertQueue.h"
#include "ui/FullScreenMessage.h"

namespace vardell {

struct Platform {
  Processes& processes;
  Session& session;
  System& system;
  Preferences& preferences;
  ServiceDiscovery& discovery;
  HotKeys& hotKeys;
  FrontApplication& frontApplication;
  Screens& screens;
};

// What the person sees, as the rest of core asks for it. The first four are modal: they return when
// dismissed, and only AlertQueue calls them. Any of them may be missing: then it is empty. The pid
// of a credit line is -1 for the whole session.
struct UserInterface {
  std::function<void(const WatchedAppPtr& entry, CreditAlertKind kind)> showCreditAlert;
  std::function<void(const QString& text)> showCurfewAlert;
  std::function<void(const QString& key)> showMessage;
  std::function<void()> lockScreen;
  std::function<void()> dismissMessage;

  std::function<void()> createLockBadge;
  std::function<void()> createOverlay;
  std::function<void()> showOverlay;
  std::function<void()> redrawOverlay;
  std::function<void()> countDownOverlay;  // one tick of its visibility
  std::function<void()> createStatusItem;
  std::function<void()> toggleStatusItem;
  std::function<void(std::int32_t pid, const QString& name, double credit)> setAppCreditLine;
  std::function<void(std::int32_t pid)> removeAppCreditLine;
  std::function<bool(std::int32_t pid)> hasAppCreditLine;
  std::function<void(bool enabled, std::uint64_t limitBytes, std::uint64_t usageBytes)> setDiskLine;
};

// An application that is unwatched because the Server did not answer, and still is to be paid for.
struct LostApp {
  WatchedAppPtr entry;
  std::uint32_t seconds = 0;  // that it was used since its last minute boundary
  bool ended = false;
};

struct Agent {
  Agent(const Platform& seams, TickTimer::Clock monotonicClock, std::chrono::milliseconds second);

  Platform platform;
  UserInterface ui;
  ServerLink link;
  TickTimer::Clock monotonic;
  std::chrono::milliseconds secondLength;

  bool isSystem103 = false;
  WatchedAppTable watchedApps;
  QString currentUserName;
  TickTimer tickTimer;
  std::int32_t loginPid = 0;
  bool lastMinuteCredit = true;
  bool autoHideAlerts = false;
  bool playAlertsSound = false;
  bool dontFadeScreen = false;
  std::int32_t statusRefreshCountdown = 0;

  AlertQueue alerts;

  DiskQuota diskQuota;
  HomeFolderMeasurement homeFolder;

  // After a fetch without an answer: when to look for the Server next, by `monotonic`, and the
  // pause after that, in seconds; 0: nothing was missed.
  std::chrono::milliseconds serverRetryAt{0};
  int serverRetryPause = 0;
  std::vector<LostApp> lostApps;  // at most kMaxLostApps
};

// Ticks of a sixtieth of a second, by the agent's monotonic clock.
std::uint32_t TickCount(const Agent& agent);

WatchContext MakeWatchContext(Agent& agent);

// Queue what their names say; each returns at once.
void QueueCreditAlert(Agent& agent, const WatchedAppPtr& entry, CreditAlertKind kind,
                      std::function<void()> dismissed);
void QueueCurfewAlert(Agent& agent, const WatchedAppPtr& entry, bool isEarly,
                      std::int32_t boundaryMinutes, std::function<void()> dismissed);
void QueueLockScreen(Agent& agent, std::function<void()> dismissed = {});

template <typename Function, typename... Arguments>
void Tell(const Function& function, Arguments&&... arguments) {
  if (function) function(std::forward<Arguments>(arguments)...);
}

}  // namespace vardell
