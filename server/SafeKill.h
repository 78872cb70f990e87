// Ending a process for a user who asks for it: only a process that is wholly that user's, or the
// leader of one of that user's sessions (which is often wholly root's), and never a process that
// was given the same pid in the meantime.
#pragma once

#include <sys/types.h>

#include <QString>
#include <array>
#include <functional>
#include <optional>

namespace vardell::server {

// Accounts below this uid, and nobody's, belong to the system.
inline constexpr uid_t kFirstPersonalUid = 1000;
inline constexpr uid_t kNobodyUid = 65534;

enum class KillResult {
  Killed,
  Gone,       // no such process, or it ended meanwhile
  NotTheirs,  // another user's process, and not the leader of one of the requester's sessions
  Protected,  // pid 1, a kernel thread, a system account's, the service manager, the bus, ourselves
  Denied,     // the kernel said EPERM
  Failed,     // anything else the kernel said
  Last = Failed,
};
QString ToString(KillResult result);

struct ProcessFacts {
  std::array<uid_t, 4> uids{};  // real, effective, saved, file system
  QString program;  // base name of the executable; the process's name where that is hidden
  pid_t session = 0;
  bool isKernelThread = false;
};

// From /proc. None when there is no such process, or it has ended and was not waited for yet.
std::optional<ProcessFacts> ReadProcessFacts(pid_t pid);

// Whether `pid` is the leader of a login session of `user`. May block; one thread at a time.
using IsSessionLeader = std::function<bool(pid_t pid, uid_t user)>;

// Asks login1 on the system bus (at most 1 s for each answer); where the machine has no login1, the
// process table. A login1 that does not answer means no.
bool IsSessionLeaderOf(pid_t pid, uid_t user);

// The process table alone: `pid` leads its session, and a live process of `user` belongs to it.
bool IsSessionLeaderByProcessTable(pid_t pid, uid_t user);

struct KillRules {
  IsSessionLeader isSessionLeader = IsSessionLeaderOf;
  std::function<std::optional<ProcessFacts>(pid_t)> readFacts = ReadProcessFacts;
};

// Blocks only for the answer of isSessionLeader, which is asked where the process is not the
// requester's own.
[[nodiscard]] KillResult KillOnRequest(pid_t pid, uid_t requester, const KillRules& rules);

}  // namespace vardell::server
