#include "platform/linux/LinuxProcesses.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QFile>
#include <algorithm>
#include <cerrno>
#include <utility>

#include "Common Sources/Caps.h"
#include "Common Sources/TestHooks.h"
#include "platform/HotKeys.h"
#include "platform/linux/ProcessTable.h"

namespace vardell {
namespace {

bool Contains(const std::vector<RunningApplication>& list, const RunningApplication& one) {
  return std::find(list.begin(), list.end(), one) != list.end();
}

}  // namespace

LinuxProcesses::LinuxProcesses(Session& session, Windows windows)
    : session_(session), scan_(DesktopEntries(OwnApplicationFolders()), std::move(windows)) {
  compareSoon_.setSingleShot(true);
  connect(&compareSoon_, &QTimer::timeout, this, [this] { Compare(); });
  // A coarse timer may be late by a twentieth, and a look takes its time on a busy machine.
  compareAlways_.setInterval(
      std::min<std::chrono::milliseconds>(std::chrono::milliseconds(800), SecondLength() * 8 / 10));
  connect(&compareAlways_, &QTimer::timeout, this, [this] { Compare(); });
}

LinuxProcesses::~LinuxProcesses() {
  for (Told& told : told_) Close(told);
}

bool LinuxProcesses::IsAlive(std::int32_t pid) {
  if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) return false;
  const std::optional<ProcessStat> stat = ReadProcessStat(pid);
  // Other users' processes may be kept out of /proc.
  return stat ? IsLive(*stat) : kill(pid, 0) == 0 || errno == EPERM;
}

std::vector<ProcessSerialNumber> LinuxProcesses::RunningApplications() {
  std::vector<ProcessSerialNumber> all{LoginWindow()};
  for (const RunningApplication& application : scan_.Look(session_.LeaderPid())) {
    all.push_back(application.process);
    if (IsTold(application)) continue;
    if (isWatching_) {
      ScheduleCompare();
    } else {
      told_.push_back({application, -1, nullptr});
    }
  }
  return all;
}

void LinuxProcesses::Watch(Handler launched, Handler terminated) {
  launched_ = std::move(launched);
  terminated_ = std::move(terminated);
  for (const RunningApplication& application : scan_.Look(session_.LeaderPid())) {
    if (!IsTold(application)) told_.push_back({application, -1, nullptr});
  }
  isWatching_ = true;
  for (Told& told : told_) WaitForEnd(told);
  events_ = std::make_unique<ProcessEvents>([this] { Compare(); });
  compareAlways_.start();
}

void LinuxProcesses::ScheduleCompare() {
  if (!compareSoon_.isActive()) compareSoon_.start(0);
}

// Ends come before launches: a process that runs another application now is both. Handlers may ask
// for RunningApplications, so that nothing is held over their calls.
void LinuxProcesses::Compare() {
  const std::vector<RunningApplication> running = scan_.Look(session_.LeaderPid());
  while (const std::optional<RunningApplication> ended = ForgetOne(running)) {
    if (terminated_) terminated_(ended->process);
  }
  for (const RunningApplication& application : running) {
    if (!IsTold(application)) Tell(application);
  }
}

std::optional<RunningApplication> LinuxProcesses::ForgetOne(
    const std::vector<RunningApplication>& running) {
  const auto gone = std::find_if(told_.begin(), told_.end(), [&](const Told& told) {
    return !Contains(running, told.application);
  });
  if (gone == told_.end()) return std::nullopt;
  const RunningApplication application = gone->application;
  Close(*gone);
  told_.erase(gone);
  return application;
}

void LinuxProcesses::Tell(const RunningApplication& application) {
  told_.push_back({application, -1, nullptr});
  WaitForEnd(told_.back());
  if (launched_) launched_(application.process);
}

bool LinuxProcesses::IsTold(const RunningApplication& application) const {
  return std::any_of(told_.begin(), told_.end(),
                     [&](const Told& told) { return told.application == application; });
}

void LinuxProcesses::WaitForEnd(Told& told) {
  const auto waiting =
      std::count_if(told_.begin(), told_.end(), [](const Told& other) { return other.pidfd >= 0; });
  if (static_cast<std::size_t>(waiting) >= kMaxProcessDescriptors) return;
  told.pidfd = static_cast<int>(syscall(SYS_pidfd_open, told.application.process.pid, 0));
  // It may have gone meanwhile, and another process have its pid.
  const std::optional<ProcessStat> stat = ReadProcessStat(told.application.process.pid);
  if (told.pidfd < 0 || !stat || stat->started != told.application.process.started) {
    ScheduleCompare();
    return;
  }
  told.ended = std::make_unique<QSocketNotifier>(told.pidfd, QSocketNotifier::Read);
  QSocketNotifier* notifier = told.ended.get();
  connect(notifier, &QSocketNotifier::activated, this, [this, notifier] {
    notifier->setEnabled(false);  // stays readable
    ScheduleCompare();
  });
}

void LinuxProcesses::Close(Told& told) {
  told.ended.reset();
  if (told.pidfd >= 0) close(std::exchange(told.pidfd, -1));
}

ProcessSerialNumber LinuxProcesses::LoginWindow() {
  const std::int32_t leader = session_.LeaderPid();
  const std::optional<ProcessStat> stat = ReadProcessStat(leader);
  return {leader, stat ? stat->started : 0};
}

std::optional<ApplicationInfo> LinuxProcesses::Application(const ProcessSerialNumber& process) {
  if (process != LoginWindow()) return scan_.Application(process);
  ApplicationInfo info;
  info.path = QFile::decodeName(ReadExecutable(process.pid));
  info.isBundle = true;
  info.identifier = QLatin1String(kLoginWindowIdentifier);
  info.typeCode = FourCharCode("APPL");
  return info;
}

}  // namespace vardell
