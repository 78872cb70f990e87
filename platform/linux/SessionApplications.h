// The applications that run in the sessions of this machine, each as the agent of its session sees
// it: for an administrator outside of them. Each session is looked at by a process of its own that
// has no more rights than the session's user, all of them at once and up to a deadline: whatever
// such a session does to it (an X server that says nothing, or nonsense) costs that session's
// answer alone. What the agent has seen before is not known here: a program that no desktop entry
// names is listed while it has a window, and a program that took its launcher's place may be
// missed. To be called from a process with one thread; blocks.
#pragma once

#include <QString>
#include <chrono>
#include <optional>
#include <vector>

#include "platform/Processes.h"
#include "platform/linux/SessionAgents.h"

namespace vardell {

inline constexpr std::chrono::milliseconds kSessionLookPatience{3000};

struct SessionApplication {
  QString user;
  QString sessionId;  // of the login session; empty: in none
  ProcessSerialNumber process;
  ApplicationInfo application;
};

// A session whose agent runs.
struct AnsweringSession {
  enum class Answer { Whole, WithoutWindows, None };
  QString user;
  QString sessionId;
  Answer answer = Answer::None;
};

struct SessionApplications {
  std::vector<AnsweringSession> sessions;        // empty: no agent runs, or none that may be seen
  std::vector<SessionApplication> applications;  // of each session its login window first
  int notPermitted = 0;                          // agents of others that this user may not look at
};

// Of one user or of all; a user other than root gets the own ones. `agentProgram` as in
// FindSessionAgents.
SessionApplications LookAtSessions(const std::optional<uid_t>& user,
                                   const QByteArray& agentProgram = AgentBesideThisProgram(),
                                   std::chrono::milliseconds patience = kSessionLookPatience);

}  // namespace vardell
