#include "core/StartUp.h"

#include <QTimer>
#include <cstdio>
#include <memory>
#include <thread>

#include "core/AgentPreferences.h"
#include "core/EnforcementTick.h"
#include "core/EventHandlers.h"

namespace vardell {
namespace {

constexpr std::uint32_t kConnectTicks = 3600;
constexpr std::uint32_t kTicksPerSecond = 60;
constexpr int kRetrySeconds = 120;

enum class Outcome { Run, EndHere };

void Say(const char* text) {
  std::fputs(text, stdout);
  std::fflush(stdout);
}

template <typename... Arguments>
void Say(const char* format, Arguments... arguments) {
  std::printf(format, arguments...);
  std::fflush(stdout);
}

// Outlives the wait in a message that was queued and not yet shown.
struct ServerWait {
  bool messageWaitsOrIsUp = false;
  bool over = false;
};

void QueueRetryMessage(Agent& agent, const std::shared_ptr<ServerWait>& wait) {
  if (wait->messageWaitsOrIsUp) return;
  wait->messageWaitsOrIsUp = true;
  QueuedAlert message;
  message.show = [&agent, wait] {
    if (!wait->over) Tell(agent.ui.showMessage, QStringLiteral("Cannot contact remote server"));
  };
  message.dismissed = [wait] { wait->messageWaitsOrIsUp = false; };
  agent.alerts.Enqueue(std::move(message));
}

// Tries the Server again every two minutes, under the message that says it cannot be reached; the
// event loop ends once it can.
void WaitForServer(Agent& agent, const EventLoop& loop) {
  const auto wait = std::make_shared<ServerWait>();
  QTimer retry;
  retry.setTimerType(Qt::PreciseTimer);
  QObject::connect(&retry, &QTimer::timeout, &retry, [&] {
    retry.setInterval(kRetrySeconds * agent.secondLength);
    if (ConnectToServer(agent.link) != 0) {
      QueueRetryMessage(agent, wait);
      return;
    }
    wait->over = true;
    retry.stop();
    Tell(agent.ui.dismissMessage);
    loop.quit();
  });
  retry.start(0);
  (void)loop.run();
}

void QueueLockMessage(Agent& agent) {
  QueuedAlert message;
  message.show = [&agent] { Tell(agent.ui.showMessage, QStringLiteral("Cannot contact server")); };
  agent.alerts.Enqueue(std::move(message));
}

Outcome ActWithoutServer(Agent& agent, const EventLoop& loop, std::int32_t error) {
  Say("Cannot contact server err = %i.\n", error);
  switch (ReadConfiguration(agent.platform.preferences)) {
    case kConfigurationRetry:
      WaitForServer(agent, loop);
      return Outcome::Run;
    case kConfigurationLock:
      QueueLockMessage(agent);
      (void)loop.run();
      return Outcome::EndHere;
    default:
      return Outcome::Run;
  }
}

void FillTable(Agent& agent) {
  if (agent.link.shared) {
    FillWatchedApps(MakeWatchContext(agent), agent.watchedApps);
  } else {
    // Each application would wait for a Server that was just found missing; the tick goes on
    // looking for it and offers them all when it is there.
    agent.link.replyMissed = true;
  }
}

}  // namespace

std::int32_t ConnectAtStartUp(Agent& agent) {
  const std::uint32_t deadline = TickCount(agent) + kConnectTicks;
  std::int32_t result = -1;
  while (result != 0 && TickCount(agent) <= deadline) {
    const std::uint32_t began = TickCount(agent);
    result = ConnectToServer(agent.link);
    if (result != 0 && TickCount(agent) - began < kTicksPerSecond) {
      std::this_thread::sleep_for(agent.secondLength);
    }
  }
  return result;
}

int RunAgent(Agent& agent, const EventLoop& loop) {
  agent.isSystem103 = agent.platform.system.Version().minor == 3;
  agent.currentUserName = agent.platform.system.UserShortName();
  Say(agent.platform.preferences.Synchronize() ? "Preferences sync'ed.\n"
                                               : "Could not sync preferences!\n");
  if (IsNonWatchedAccount(agent.currentUserName)) {
    Say("Cannot watch this user.\n");
    (void)loop.run();
    return 0;
  }
  LoadPreferences(agent);
  agent.link.pinnedServer = [&agent] { return ReadPinnedServer(agent.platform.preferences); };
  if (const std::int32_t error = ConnectAtStartUp(agent); error != 0) {
    if (ActWithoutServer(agent, loop, error) == Outcome::EndHere) return 0;
  }

  InstallEventHandlers(agent);
  if (!agent.platform.session.IsActive()) {
    (void)HandleSessionEvent(agent,
                             {kEventClassSystem, kEventSystemUserSessionDeactivated, {}, {}});
  }
  agent.tickTimer.Start([&agent] { EnforcementTick(agent); });
  Tell(agent.ui.createOverlay);
  RegisterHotKeys(agent);
  LoadPreferences(agent);
  if (IsLockBadgeWanted(agent.platform.preferences)) Tell(agent.ui.createLockBadge);
  FillTable(agent);
  Tell(agent.ui.createStatusItem);
  Tell(agent.ui.showOverlay);
  (void)loop.run();
  return 0;
}

}  // namespace vardell
