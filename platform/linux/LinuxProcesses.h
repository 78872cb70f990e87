// Processes by /proc: an application is the topmost process of a family that belongs to the same
// desktop entry, or a process without an entry that owns a window. A scan finds launches within a
// second (the proc connector makes it earlier where it is allowed), pidfds tell of ends.
// The login window never terminates here: whoever ends the session's leader by some trick must not
// end the watch over the session with it.
#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Processes.h"
#include "platform/Session.h"
#include "platform/linux/ApplicationScan.h"
#include "platform/linux/ProcessEvents.h"

namespace vardell {

class LinuxProcesses : public QObject, public Processes {
 public:
  LinuxProcesses(Session& session, Windows windows);
  ~LinuxProcesses() override;

  std::vector<ProcessSerialNumber> RunningApplications() override;
  std::optional<ApplicationInfo> Application(const ProcessSerialNumber& process) override;
  bool IsAlive(std::int32_t pid) override;
  void Watch(Handler launched, Handler terminated) override;

 private:
  // An application that the watcher knows of.
  struct Told {
    RunningApplication application;
    int pidfd = -1;  // none: the scan finds its end
    std::unique_ptr<QSocketNotifier> ended;
  };

  void ScheduleCompare();
  void Compare();
  void Tell(const RunningApplication& application);
  std::optional<RunningApplication> ForgetOne(const std::vector<RunningApplication>& running);
  bool IsTold(const RunningApplication& application) const;
  void WaitForEnd(Told& told);
  static void Close(Told& told);
  ProcessSerialNumber LoginWindow();

  Session& session_;
  ApplicationScan scan_;
  std::vector<Told> told_;
  bool isWatching_ = false;
  Handler launched_;
  Handler terminated_;
  QTimer compareSoon_;
  QTimer compareAlways_;
  std::unique_ptr<ProcessEvents> events_;
};

}  // namespace vardell
