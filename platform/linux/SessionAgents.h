// The agents that run on this machine, one for each login session.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <optional>
#include <vector>

#include "platform/Processes.h"
#include "platform/linux/FileId.h"

namespace vardell {

inline constexpr char kAgentProgram[] = "vardell-agent";

struct SessionAgent {
  ProcessSerialNumber process;
  uid_t user = 0;
  gid_t group = 0;
  QByteArray session;  // login session; empty: in none
  FileId program;
};

struct SessionAgents {
  std::vector<SessionAgent> agents;  // the first one of each user and session, by pid
  int notPermitted = 0;              // processes that may be others' agents, but tell nothing
};

// Agents are told by the program that they run: the one at `program`, also where that was replaced
// since, or where it is empty, any of the agent's name. Root finds all of them, others their own.
// Reads nothing that a process could keep from being read.
SessionAgents FindSessionAgents(const QByteArray& program);

// Whether it is still that process, of that user and group, and runs that program: a program that
// it starts in its place may have, or take, other rights.
[[nodiscard]] bool IsStill(const SessionAgent& agent);

// Where the agent is, seen from a program that is installed beside it; empty where it is not.
QByteArray AgentBesideThisProgram();

// The process whose end ends the agent's session, as the agent has it; 0 where that is the agent.
pid_t LeaderOf(const SessionAgent& agent);

}  // namespace vardell
