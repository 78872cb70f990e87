#include "server/SafeKill.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <sstream>
#include <string>

namespace vardell::server {
namespace {

constexpr unsigned kKernelThreadFlag = 0x00200000;  // PF_KTHREAD in the flags of /proc/PID/stat

class Pidfd {
 public:
  explicit Pidfd(pid_t pid) : fd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
  ~Pidfd() {
    if (fd_ >= 0) close(fd_);
  }
  Pidfd(const Pidfd&) = delete;
  Pidfd& operator=(const Pidfd&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  bool IsAlive() const {
    pollfd wait{fd_, POLLIN, 0};
    return poll(&wait, 1, 0) == 0;
  }
  int Kill() const {
    return static_cast<int>(syscall(SYS_pidfd_send_signal, fd_, SIGKILL, nullptr, 0));
  }

 private:
  const int fd_;
};

std::string ProcPath(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

bool ReadUids(pid_t pid, std::array<uid_t, 4>* uids) {
  std::ifstream status(ProcPath(pid, "status"));
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Uid:", 0) != 0) continue;
    std::istringstream numbers(line.substr(4));
    std::array<uid_t, 4> read{};
    for (uid_t& uid : read) numbers >> uid;
    if (!numbers) return false;
    *uids = read;
    return true;
  }
  return false;
}

// "PID (name) state ppid pgrp session tty tpgid flags ..."; the name may hold anything.
bool ReadStat(pid_t pid, ProcessFacts* facts) {
  std::ifstream file(ProcPath(pid, "stat"));
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const std::size_t open = text.find('(');
  const std::size_t close = text.rfind(')');
  if (open == std::string::npos || close == std::string::npos || close < open) return false;
  std::istringstream fields(text.substr(close + 1));
  char state = 0;
  long skipped = 0;
  unsigned flags = 0;
  pid_t session = 0;
  if (!(fields >> state >> skipped >> skipped >> session >> skipped >> skipped >> flags))
    return false;
  if (state == 'Z' || state == 'X') return false;
  facts->program = QString::fromUtf8(text.data() + open + 1, static_cast<int>(close - open - 1));
  facts->session = session;
  facts->isKernelThread = (flags & kKernelThreadFlag) != 0;
  return true;
}

QString ExecutableName(pid_t pid) {
  std::array<char, PATH_MAX> target{};
  const ssize_t size = readlink(ProcPath(pid, "exe").c_str(), target.data(), target.size());
  if (size <= 0) return {};
  QString path = QString::fromLocal8Bit(target.data(), static_cast<int>(size));
  const QString deleted = QStringLiteral(" (deleted)");
  if (path.endsWith(deleted)) path.chop(deleted.size());
  return path.section(QLatin1Char('/'), -1);
}

bool IsSystemAccount(uid_t uid) {
  return uid < kFirstPersonalUid || uid == kNobodyUid;
}

bool HoldsTheSystemUp(const ProcessFacts& facts) {
  static const std::array<QLatin1String, 5> kPrograms = {
      QLatin1String("systemd"), QLatin1String("init"), QLatin1String("dbus-daemon"),
      QLatin1String("dbus-broker"), QLatin1String("dbus-broker-launch")};
  return std::find(kPrograms.begin(), kPrograms.end(), facts.program) != kPrograms.end();
}

// The session that this process itself was started in is nobody's login session.
bool IsOurs(pid_t pid) {
  return pid == getpid() || pid == getsid(0) || pid == getppid();
}

bool IsWhollyOf(const ProcessFacts& facts, uid_t user) {
  return std::all_of(facts.uids.begin(), facts.uids.end(),
                     [user](uid_t uid) { return uid == user; });
}

// Killed where it may be. A session's leader is wholly root's or wholly the user's; what has uids
// of both is a program of root's that the user has started.
KillResult Judge(pid_t pid, const ProcessFacts& facts, uid_t requester,
                 const IsSessionLeader& isSessionLeader) {
  if (facts.isKernelThread || HoldsTheSystemUp(facts)) return KillResult::Protected;
  if (IsWhollyOf(facts, requester)) return KillResult::Killed;
  const auto isOfSystem = [](uid_t uid) { return uid != 0 && IsSystemAccount(uid); };
  if (std::any_of(facts.uids.begin(), facts.uids.end(), isOfSystem)) return KillResult::Protected;
  if (!IsWhollyOf(facts, 0)) return KillResult::NotTheirs;
  return isSessionLeader(pid, requester) ? KillResult::Killed : KillResult::NotTheirs;
}

}  // namespace

QString ToString(KillResult result) {
  switch (result) {
    case KillResult::Killed:
      return QStringLiteral("killed");
    case KillResult::Gone:
      return QStringLiteral("gone already");
    case KillResult::NotTheirs:
      return QStringLiteral("refused: not a process of that user");
    case KillResult::Protected:
      return QStringLiteral("refused: protected");
    case KillResult::Denied:
      return QStringLiteral("the kernel did not permit it");
    case KillResult::Failed:
      return QStringLiteral("failed");
  }
  return {};
}

std::optional<ProcessFacts> ReadProcessFacts(pid_t pid) {
  ProcessFacts facts;
  if (!ReadStat(pid, &facts) || !ReadUids(pid, &facts.uids)) return std::nullopt;
  if (const QString name = ExecutableName(pid); !name.isEmpty()) facts.program = name;
  return facts;
}

// The pidfd is opened first and polled last: alive then means that what was seen was its own,
// whoever has the pid by the time of the signal.
KillResult KillOnRequest(pid_t pid, uid_t requester, const KillRules& rules) {
  if (pid <= 1 || IsOurs(pid) || IsSystemAccount(requester)) return KillResult::Protected;
  const Pidfd process(pid);
  if (!process.IsOpen()) return errno == ESRCH ? KillResult::Gone : KillResult::Failed;
  const std::optional<ProcessFacts> facts = rules.readFacts(pid);
  if (!facts) return KillResult::Gone;
  const KillResult verdict = Judge(pid, *facts, requester, rules.isSessionLeader);
  if (!process.IsAlive()) return KillResult::Gone;
  if (verdict != KillResult::Killed) return verdict;
  if (process.Kill() == 0) return KillResult::Killed;
  if (errno == ESRCH) return KillResult::Gone;
  return errno == EPERM ? KillResult::Denied : KillResult::Failed;
}

}  // namespace vardell::server
