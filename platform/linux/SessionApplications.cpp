#include "platform/linux/SessionApplications.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QFile>
#include <algorithm>
#include <cerrno>
#include <utility>

#include "Common Sources/Caps.h"
#include "platform/HotKeys.h"
#include "platform/linux/ProcessTable.h"
#include "platform/linux/Rights.h"
#include "platform/linux/SessionView.h"

namespace vardell {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTellingDescriptor = 3;
constexpr rlim_t kMostMemory = 512u << 20;  // besides what the process has already
constexpr rlim_t kMostSeconds = 10;         // of the processor
constexpr std::chrono::milliseconds kDyingPatience{200};

QString UserName(uid_t user) {
  std::vector<char> buffer(16384);
  passwd account{};
  passwd* found = nullptr;
  const bool isKnown =
      getpwuid_r(user, &account, buffer.data(), buffer.size(), &found) == 0 && found;
  return isKnown ? QFile::decodeName(found->pw_name) : QString::number(user);
}

// ---- in the process that looks ------------------------------------------------------------------

// What it says goes into the pipe, and it holds nothing else of its parent's.
bool KeepOnly(int pipe) {
  const int nothing = open("/dev/null", O_RDWR);
  if (nothing < 0) return false;
  for (int fd = 0; fd < 3; ++fd) {
    if (dup2(nothing, fd) < 0) return false;
  }
  if (pipe != kTellingDescriptor && dup2(pipe, kTellingDescriptor) < 0) return false;
  return close_range(kTellingDescriptor + 1, ~0u, 0) == 0;
}

void Limit(int resource, rlim_t most) {
  const rlimit limit{most, most};
  (void)setrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
}

rlim_t OwnMemory() {
  QFile file(QStringLiteral("/proc/self/statm"));
  if (!file.open(QIODevice::ReadOnly)) return 0;
  return file.read(64).split(' ').value(0).toULongLong() *
         static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

void LimitItself() {
  Limit(RLIMIT_CORE, 0);
  Limit(RLIMIT_FSIZE, 0);
  Limit(RLIMIT_CPU, kMostSeconds);
  Limit(RLIMIT_AS, OwnMemory() + kMostMemory);
}

void Tell(const QByteArray& text) {
  qsizetype told = 0;
  while (told < text.size()) {
    const ssize_t count = write(kTellingDescriptor, text.constData() + told,
                                static_cast<std::size_t>(text.size() - told));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    told += count;
  }
}

// The agent's environment is read before the rights are given up, since it may be kept from its
// user; everything else after. A session of its own keeps it from the parent's terminal.
[[noreturn]] void LookAndTell(const SessionAgent& agent, pid_t leader, pid_t parent, int pipe) {
  if (setsid() < 0 || !KeepOnly(pipe)) _exit(1);
  signal(SIGPIPE, SIG_IGN);
  LimitItself();
  const SessionDisplay display = ReadSessionDisplay(agent);
  if (!IsStill(agent)) _exit(1);
  if (agent.user != getuid() && !BecomeUserForGood(agent.user, agent.group)) _exit(1);
  if (getuid() != agent.user || geteuid() != agent.user) _exit(1);
  // After the change of the user, which clears it.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(1);
  if (const passwd* account = getpwuid(agent.user)) qputenv("HOME", account->pw_dir);
  Tell(WriteSessionView(LookAtSession(agent, display, leader)));
  _exit(0);
}

// ---- in the process that asks -------------------------------------------------------------------

struct Look {
  SessionAgent agent;
  pid_t leader = 0;
  pid_t child = -1;
  int pipe = -1;  // -1: it has said all that it will
  QByteArray text;
};

void Start(Look& look) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return;
  const pid_t parent = getpid();
  look.child = fork();
  if (look.child == 0) LookAndTell(look.agent, look.leader, parent, ends[1]);
  close(ends[1]);
  look.pipe = ends[0];
  (void)fcntl(look.pipe, F_SETFL, O_NONBLOCK);
}

void Close(Look& look) {
  if (look.pipe >= 0) close(std::exchange(look.pipe, -1));
}

void Take(Look& look) {
  char part[16384];
  const ssize_t count = read(look.pipe, part, sizeof part);
  if (count > 0) look.text.append(part, count);
  const bool isTooMuch = static_cast<std::size_t>(look.text.size()) > kMaxSessionViewBytes;
  const bool isOver = count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
  if (isTooMuch || isOver) Close(look);
}

int MillisecondsTo(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(left, 0));
}

void Listen(std::vector<Look>& looks, Clock::time_point deadline) {
  for (;;) {
    std::vector<pollfd> waits;
    std::vector<Look*> waiting;
    for (Look& look : looks) {
      if (look.pipe < 0) continue;
      waits.push_back({look.pipe, POLLIN, 0});
      waiting.push_back(&look);
    }
    const int patience = MillisecondsTo(deadline);
    if (waits.empty() || patience == 0) return;
    if (poll(waits.data(), waits.size(), patience) < 0 && errno != EINTR) return;
    for (std::size_t i = 0; i < waits.size(); ++i) {
      if (waits[i].revents != 0) Take(*waiting[i]);
    }
  }
}

// Its pid is its own until it is waited for, unless the kernel itself waits for it, which a parent
// that ignores the deaths of children has asked for and a program inherits.
class OwnChildren {
 public:
  OwnChildren() {
    struct sigaction own {};
    own.sa_handler = SIG_DFL;
    (void)sigaction(SIGCHLD, &own, &before_);
  }
  ~OwnChildren() { (void)sigaction(SIGCHLD, &before_, nullptr); }
  OwnChildren(const OwnChildren&) = delete;
  OwnChildren& operator=(const OwnChildren&) = delete;

 private:
  struct sigaction before_ {};
};

// One that hangs in the kernel beyond a moment is left to init.
void End(std::vector<Look>& looks) {
  for (Look& look : looks) {
    Close(look);
    if (look.child > 0) kill(look.child, SIGKILL);
  }
  const Clock::time_point deadline = Clock::now() + kDyingPatience;
  for (Look& look : looks) {
    while (look.child > 0 && waitpid(look.child, nullptr, WNOHANG) == 0) {
      if (MillisecondsTo(deadline) == 0) break;
      poll(nullptr, 0, 1);
    }
  }
}

SessionApplication LoginWindowOf(const Look& look, const AnsweringSession& session) {
  const std::optional<ProcessStat> stat = ReadProcessStat(look.leader);
  ApplicationInfo info;
  info.path = QFile::decodeName(ReadExecutable(look.leader));
  info.isBundle = true;
  info.identifier = QLatin1String(kLoginWindowIdentifier);
  info.typeCode = FourCharCode("APPL");
  return {session.user, session.sessionId, {look.leader, stat ? stat->started : 0}, info};
}

void Add(const Look& look, SessionApplications& all) {
  using Answer = AnsweringSession::Answer;
  AnsweringSession session{UserName(look.agent.user), QString::fromUtf8(look.agent.session), {}};
  const std::optional<SessionView> view = ReadSessionView(look.text);
  session.answer = !view               ? Answer::None
                   : !view->hasWindows ? Answer::WithoutWindows
                                       : Answer::Whole;
  all.applications.push_back(LoginWindowOf(look, session));
  if (view) {
    for (const SeenApplication& seen : view->applications) {
      all.applications.push_back({session.user, session.sessionId, seen.process, seen.info});
    }
  }
  all.sessions.push_back(std::move(session));
}

}  // namespace

SessionApplications LookAtSessions(const std::optional<uid_t>& user, const QByteArray& agentProgram,
                                   std::chrono::milliseconds patience) {
  const SessionAgents found = FindSessionAgents(agentProgram);
  std::vector<Look> looks;
  for (const SessionAgent& agent : found.agents) {
    if (user && *user != agent.user) continue;
    Look& look = looks.emplace_back();
    look.agent = agent;
    look.leader = LeaderOf(agent);
  }
  const OwnChildren children;
  const Clock::time_point deadline = Clock::now() + patience;
  for (Look& look : looks) Start(look);
  Listen(looks, deadline);
  End(looks);

  SessionApplications all;
  all.notPermitted = found.notPermitted;
  for (const Look& look : looks) Add(look, all);
  return all;
}

}  // namespace vardell
