// An agent on fakes and a recording Server, and the words that its tests are told in.
#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QStringList>

#include "core/Agent.h"
#include "core/EnforcementTick.h"
#include "tests/support/FakeFrontApplication.h"
#include "tests/support/FakeHotKeys.h"
#include "tests/support/FakePreferences.h"
#include "tests/support/FakeProcesses.h"
#include "tests/support/FakeScreens.h"
#include "tests/support/FakeServiceDiscovery.h"
#include "tests/support/FakeSession.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/RecordingServer.h"
#include "tests/support/Waiting.h"

namespace vardell::test {

class AgentFixture : public testing::Test {
 protected:
  AgentFixture() {
    agent.currentUserName = QStringLiteral("anna");
    agent.link.pinnedServer = [this] { return std::optional(server.Address()); };
    agent.link.second = std::chrono::milliseconds(200);
    agent.ui.showCreditAlert = [this](const WatchedAppPtr& entry, CreditAlertKind kind) {
      Show(QStringLiteral("%1 %2").arg(entry->identifier).arg(static_cast<int>(kind)));
    };
    agent.ui.showMessage = [this](const QString& key) { Show(key); };
    agent.ui.showCurfewAlert = [this](const QString& text) { Show(text); };
    agent.ui.lockScreen = [this] { Show(QStringLiteral("lock")); };
    agent.ui.dismissMessage = [this] { messageDismissed = true; };
    agent.ui.setAppCreditLine = [this](std::int32_t pid, const QString& shownName, double credit) {
      lines << QStringLiteral("%1 %2 %3").arg(pid).arg(shownName).arg(credit, 0, 'f', 2);
    };
    agent.ui.removeAppCreditLine = [this](std::int32_t pid) { removedLines.push_back(pid); };
  }

  // --- vocabulary

  static ApplicationInfo Toy() {
    return {QStringLiteral("/a/toy.desktop"),
            true,
            QStringLiteral("toy"),
            0,
            {},
            QStringLiteral("Toy")};
  }
  WatchedAppPtr Watch(const QString& identifier, int credit, std::int32_t pid) {
    auto entry = std::make_shared<WatchedApp>();
    entry->identifier = identifier;
    entry->displayName = identifier.toUpper();
    entry->pid = pid;
    entry->limits.enabled = 1;
    entry->limits.credit = credit;
    processes.SetAlive(pid, true);
    server.AnswerCredit(identifier, credit);
    agent.watchedApps.push_back(entry);
    return entry;
  }
  void Tick(int seconds = 1) {
    for (int i = 0; i < seconds; ++i) {
      now += agent.secondLength;
      EnforcementTick(agent);
    }
  }
  void Minutes(int count) { Tick(60 * count); }
  bool IsWatched(const QString& identifier) const {
    return FindWatchedApp(agent.watchedApps, identifier) != nullptr;
  }
  // Lets the alerts that are due come up; those that were shown since the last call.
  QStringList ShownAlerts() {
    WaitUntil([this] { return agent.alerts.IsIdle(); });
    return std::exchange(shown, {});
  }
  // "kind:credit" for a report, "kind" for anything else: "3 1 6:29 1".
  QString Frames() {
    QStringList told;
    for (const RecordingServer::Frame& frame : server.TakeFrames())
      told << (frame.kind == 6 ? QStringLiteral("6:%1").arg(frame.credit)
                               : QString::number(frame.kind));
    return told.join(u' ');
  }
  // As a modal alert: what happens beneath it happens in here, and it is dismissed with the return.
  void Show(const QString& what) {
    shown << what;
    if (whileItStands) std::exchange(whileItStands, {})();
  }

  CoreApplication application;
  FakeProcesses processes;
  FakeSession session;
  FakeSystem system;
  FakePreferences preferences;
  FakeServiceDiscovery discovery;
  FakeHotKeys hotKeys;
  FakeFrontApplication front;
  FakeScreens screens;
  RecordingServer server;
  std::chrono::milliseconds now{0};
  std::chrono::milliseconds perLook{0};  // how far the clock moves each time it is looked at
  Agent agent{{processes, session, system, preferences, discovery, hotKeys, front, screens},
              [this] { return now += perLook; },
              std::chrono::milliseconds(10)};
  std::function<void()> whileItStands;  // beneath the next alert
  bool messageDismissed = false;
  QStringList shown;
  QStringList lines;
  std::vector<std::int32_t> removedLines;
};

}  // namespace vardell::test
