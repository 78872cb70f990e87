#include "platform/linux/LinuxProcesses.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <algorithm>
#include <cerrno>
#include <unordered_set>

#include "Common Sources/TestHooks.h"
#include "platform/linux/Identify.h"

namespace vardell {
namespace {

constexpr std::chrono::milliseconds kScanInterval{1000};
constexpr int kMaxAncestors = 64;

std::uint32_t CodeOf(const QByteArray& text) {
  std::uint32_t code = 0;
  for (int i = 0; i < 4; ++i) {
    code = code << 8 | static_cast<unsigned char>(i < text.size() ? text[i] : ' ');
  }
  return code;
}

std::uint32_t CreatorOf(const QByteArray& exe) {
  char creator[4];
  if (getxattr(exe.constData(), "user.creator", creator, sizeof creator) == sizeof creator) {
    return CodeOf(QByteArray(creator, sizeof creator));
  }
  return CodeOf(exe.mid(exe.lastIndexOf('/') + 1));
}

ProcessSerialNumber SerialOf(const ProcessFacts& facts) {
  return {facts.pid, facts.started};
}

}  // namespace

LinuxProcesses::LinuxProcesses(Session& session, WindowOwnersFunction windowOwners)
    : session_(session),
      windowOwners_(std::move(windowOwners)),
      entries_(ApplicationFolders(QDir::homePath())) {
  if (const std::optional<ProcessFacts> own = ReadProcess(getpid())) {
    ownSession_ = SessionOfCgroup(own->cgroup);
  }
}

LinuxProcesses::~LinuxProcesses() {
  for (const auto& known : known_) close(known->pidfd);
}

bool LinuxProcesses::IsAlive(std::int32_t pid) {
  if (kill(pid, 0) != 0 && errno != EPERM) return false;
  const std::optional<ProcessFacts> facts = ReadProcessStat(pid);
  return facts && facts->state != 'Z' && facts->state != 'X';
}

bool LinuxProcesses::BelongsHere(const ProcessFacts& facts) const {
  if (facts.user != geteuid() || facts.pid == getpid()) return false;
  const QByteArray session = SessionOfCgroup(facts.cgroup);
  return session.isEmpty() || ownSession_.isEmpty() || session == ownSession_;
}

bool LinuxProcesses::IsUnchanged(const Seen& seen) const {
  const std::optional<ProcessFacts> now = ReadProcessStat(seen.facts.pid);
  if (!now || now->started != seen.facts.started) return false;
  if (ReadExecutable(seen.facts.pid) != seen.facts.exe) return false;
  // The same interpreter may run another script.
  return !IsInterpreter(seen.facts.exe);
}

void LinuxProcesses::LookAtProcess(pid_t pid, const std::vector<pid_t>& windowOwners) {
  const auto known = seen_.find(pid);
  const bool ownsWindow =
      std::find(windowOwners.begin(), windowOwners.end(), pid) != windowOwners.end();
  if (known != seen_.end() && IsUnchanged(known->second) &&
      (!ownsWindow || !known->second.identity.isEmpty())) {
    return;
  }
  const std::optional<ProcessFacts> facts = ReadProcess(pid);
  if (!facts) {
    seen_.erase(pid);
    return;
  }
  Seen seen{*facts, {}, false, true};
  if (BelongsHere(*facts) && facts->state != 'Z') {
    if (const DesktopEntry* entry = Identify(*facts, entries_)) {
      seen.identity = entry->path;
    } else if (ownsWindow && !facts->exe.isEmpty()) {
      seen.identity = QFile::decodeName(facts->exe);
      seen.isBare = true;
    }
  }
  seen_.insert_or_assign(pid, std::move(seen));
}

bool LinuxProcesses::IsTopmost(const Seen& seen) const {
  pid_t parent = seen.facts.parent;
  for (int i = 0; i < kMaxAncestors && parent > 1; ++i) {
    const auto above = seen_.find(parent);
    if (above == seen_.end()) return true;
    if (above->second.identity == seen.identity) return false;
    parent = above->second.facts.parent;
  }
  return true;
}

LinuxProcesses::Applications LinuxProcesses::Scan() {
  if (entries_.Update()) seen_.clear();
  const std::vector<pid_t> pids = ListProcesses();
  const std::unordered_set<pid_t> present(pids.begin(), pids.end());
  std::erase_if(seen_, [&](const auto& item) { return !present.contains(item.first); });
  const std::vector<pid_t> owners = windowOwners_ ? windowOwners_() : std::vector<pid_t>();
  for (const pid_t pid : pids) LookAtProcess(pid, owners);

  const std::int32_t leader = session_.LeaderPid();
  Applications found;
  for (const auto& [pid, seen] : seen_) {
    if (seen.identity.isEmpty() || pid == leader || !IsTopmost(seen)) continue;
    found.emplace_back(SerialOf(seen.facts), seen.identity);
  }
  return found;
}

LinuxProcesses::Known* LinuxProcesses::FindKnown(const ProcessSerialNumber& process) {
  for (const auto& known : known_) {
    if (known->process == process) return known.get();
  }
  return nullptr;
}

void LinuxProcesses::Track(const ProcessSerialNumber& process, const QString& identity) {
  auto known = std::make_unique<Known>();
  known->process = process;
  known->identity = identity;
  known->pidfd = static_cast<int>(syscall(SYS_pidfd_open, process.pid, 0));
  if (known->pidfd >= 0) {
    known->exit = std::make_unique<QSocketNotifier>(known->pidfd, QSocketNotifier::Read);
    connect(known->exit.get(), &QSocketNotifier::activated, this, [this, process] {
      if (Known* ended = FindKnown(process)) ended->exit->setEnabled(false);
      HasEnded(process);
    });
  }
  known_.push_back(std::move(known));
}

void LinuxProcesses::Forget(const ProcessSerialNumber& process) {
  const auto known = std::find_if(known_.begin(), known_.end(),
                                  [&](const auto& item) { return item->process == process; });
  if (known == known_.end()) return;
  close((*known)->pidfd);
  // Called from the notifier's own signal.
  if ((*known)->exit) (*known)->exit.release()->deleteLater();
  known_.erase(known);
}

void LinuxProcesses::HasEnded(const ProcessSerialNumber& process) {
  Forget(process);
  if (terminated_) terminated_(process);
}

// Tells what has changed since the last look. A handler may ask for RunningApplications, which adds
// to known_: work on copies.
void LinuxProcesses::Compare() {
  const Applications found = Scan();
  std::vector<ProcessSerialNumber> ended;
  for (const auto& known : known_) {
    const auto now = std::find_if(found.begin(), found.end(),
                                  [&](const auto& item) { return item.first == known->process; });
    const bool isThere = now != found.end() && now->second == known->identity;
    if (!isThere) ended.push_back(known->process);
  }
  for (const ProcessSerialNumber& process : ended) HasEnded(process);
  for (const auto& [process, identity] : found) {
    if (FindKnown(process)) continue;
    Track(process, identity);
    if (launched_) launched_(process);
  }
}

std::vector<ProcessSerialNumber> LinuxProcesses::RunningApplications() {
  std::vector<ProcessSerialNumber> all{LoginWindowProcess()};
  for (const auto& [process, identity] : Scan()) {
    if (!FindKnown(process)) Track(process, identity);
    all.push_back(process);
  }
  return all;
}

void LinuxProcesses::Watch(Handler launched, Handler terminated) {
  launched_ = std::move(launched);
  terminated_ = std::move(terminated);
  for (const auto& [process, identity] : Scan()) {
    if (!FindKnown(process)) Track(process, identity);
  }
  scan_.setInterval(std::min(kScanInterval, SecondLength()));
  connect(&scan_, &QTimer::timeout, this, [this] { Compare(); });
  scan_.start();
  events_ = std::make_unique<ProcessEvents>([this] { Compare(); });
}

ProcessSerialNumber LinuxProcesses::LoginWindowProcess() {
  const std::int32_t leader = session_.LeaderPid();
  const std::optional<ProcessFacts> facts = ReadProcessStat(leader);
  return facts ? SerialOf(*facts) : ProcessSerialNumber{};
}

std::optional<ApplicationInfo> LinuxProcesses::LoginWindow(const ProcessSerialNumber& process) {
  if (process != LoginWindowProcess()) return std::nullopt;
  ApplicationInfo info;
  info.isBundle = true;
  info.identifier = QLatin1String(kLoginWindowIdentifier);
  info.path = QFile::decodeName(ReadExecutable(process.pid));
  if (info.path.isEmpty()) info.path = QStringLiteral("/proc/%1/exe").arg(process.pid);
  return info;
}

ApplicationInfo LinuxProcesses::BareApplication(const QByteArray& exe) const {
  ApplicationInfo info;
  info.path = QFile::decodeName(exe);
  info.creatorCode = CreatorOf(exe);
  info.displayName = QFile::decodeName(exe.mid(exe.lastIndexOf('/') + 1));
  return info;
}

std::optional<ApplicationInfo> LinuxProcesses::Application(const ProcessSerialNumber& process) {
  if (const std::optional<ApplicationInfo> login = LoginWindow(process)) return login;
  const std::optional<ProcessFacts> facts = ReadProcess(process.pid);
  if (!facts || facts->started != process.started || !BelongsHere(*facts)) return std::nullopt;
  if (const DesktopEntry* entry = Identify(*facts, entries_)) {
    ApplicationInfo info;
    info.path = entry->path;
    info.isBundle = true;
    info.identifier = entry->id;
    info.displayName = entry->name;
    return info;
  }
  if (facts->exe.isEmpty()) return std::nullopt;
  return BareApplication(facts->exe);
}

}  // namespace vardell
