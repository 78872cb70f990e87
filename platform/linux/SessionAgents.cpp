#include "platform/linux/SessionAgents.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "Common Sources/Caps.h"
#include "platform/linux/Identify.h"
#include "platform/linux/Interpreters.h"
#include "platform/linux/ProcessTable.h"
#include "platform/linux/SessionFiles.h"

namespace vardell {
namespace {

constexpr pid_t kInit = 1;

bool Runs(const QByteArray& executable, pid_t pid, const QByteArray& program) {
  if (program.isEmpty()) return BaseName(executable) == kAgentProgram;
  if (executable == program) return true;
  const FileId file = IdOfFile(program);
  return file.IsValid() && file == IdOfExecutable(pid);
}

std::optional<SessionAgent> AgentOf(const ProcessStat& stat) {
  const std::optional<uid_t> user = ReadRealUser(stat.pid);
  const std::optional<gid_t> group = ReadRealGroup(stat.pid);
  if (!user || !group || (getuid() != 0 && *user != getuid())) return std::nullopt;
  return SessionAgent{{stat.pid, stat.started},
                      *user,
                      *group,
                      SessionOfCgroup(ReadCgroup(stat.pid)),
                      IdOfExecutable(stat.pid)};
}

bool IsListed(const std::vector<SessionAgent>& agents, const SessionAgent& one) {
  return std::any_of(agents.begin(), agents.end(), [&](const SessionAgent& other) {
    return one.user == other.user && one.session == other.session;
  });
}

}  // namespace

SessionAgents FindSessionAgents(const QByteArray& program) {
  SessionAgents found;
  for (const ListedProcess& listed : ListProcesses()) {
    const std::optional<ProcessStat> stat = ReadProcessStat(listed.pid);
    if (!stat || stat->isKernel || !IsLive(*stat)) continue;
    const QByteArray executable = ReadExecutable(listed.pid);
    if (executable.isEmpty() && getuid() != 0) {
      if (stat->name == kAgentProgram) ++found.notPermitted;
      continue;
    }
    if (!Runs(executable, listed.pid, program)) continue;
    const std::optional<SessionAgent> agent = AgentOf(*stat);
    // Again: what was read meanwhile may be another program's.
    if (!agent || !Runs(ReadExecutable(listed.pid), listed.pid, program)) continue;
    if (!IsStill(*agent) || IsListed(found.agents, *agent)) continue;
    if (found.agents.size() < kMaxSessionAgents) found.agents.push_back(*agent);
  }
  std::sort(found.agents.begin(), found.agents.end(),
            [](const auto& one, const auto& other) { return one.process.pid < other.process.pid; });
  return found;
}

// The program after the user, whom the next program may change, and the start after everything,
// since the pid may come to be another's.
bool IsStill(const SessionAgent& agent) {
  const pid_t pid = agent.process.pid;
  if (ReadRealUser(pid) != agent.user || ReadRealGroup(pid) != agent.group) return false;
  if (IdOfExecutable(pid) != agent.program) return false;
  const std::optional<ProcessStat> stat = ReadProcessStat(pid);
  return stat && stat->started == agent.process.started;
}

QByteArray AgentBesideThisProgram() {
  const QByteArray own = ReadExecutable(getpid());
  const QByteArray program = own.left(own.lastIndexOf('/') + 1) + kAgentProgram;
  struct stat status {};
  return stat(program.constData(), &status) == 0 ? program : QByteArray();
}

pid_t LeaderOf(const SessionAgent& agent) {
  const QByteArray session = agent.session.isEmpty() ? DisplaySessionOf(agent.user) : agent.session;
  const pid_t noted = SessionValue(session, "LEADER").toInt();
  const pid_t leader = noted > kInit ? noted : getsid(agent.process.pid);
  return leader == agent.process.pid ? 0 : std::max(leader, 0);
}

}  // namespace vardell
