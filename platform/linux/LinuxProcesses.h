// Processes by /proc: an application is the topmost process of a family that belongs to the same
// desktop entry, or a process without an entry that owns a window. A scan each second finds
// launches (the proc connector makes it earlier where it is allowed), pidfds tell of ends.
#pragma once

#include <sys/types.h>

#include <QHash>
#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/Processes.h"
#include "platform/Session.h"
#include "platform/linux/DesktopEntries.h"
#include "platform/linux/ProcessEvents.h"
#include "platform/linux/ProcessTable.h"

namespace vardell {

class LinuxProcesses : public QObject, public Processes {
 public:
  using WindowOwnersFunction = std::function<std::vector<pid_t>()>;

  LinuxProcesses(Session& session, WindowOwnersFunction windowOwners);
  ~LinuxProcesses() override;

  std::vector<ProcessSerialNumber> RunningApplications() override;
  std::optional<ApplicationInfo> Application(const ProcessSerialNumber& process) override;
  bool IsAlive(std::int32_t pid) override;
  void Watch(Handler launched, Handler terminated) override;

 private:
  // What a process was at its last look. `identity` is an entry's path or a bare executable's;
  // empty for what is no application.
  struct Seen {
    ProcessFacts facts;
    QString identity;
    bool isBare = false;
    bool isNew = true;
  };
  struct Known {
    ProcessSerialNumber process;
    QString identity;
    int pidfd = -1;
    std::unique_ptr<QSocketNotifier> exit;
  };
  using Applications = std::vector<std::pair<ProcessSerialNumber, QString>>;

  Applications Scan();
  void LookAtProcess(pid_t pid, const std::vector<pid_t>& windowOwners);
  bool IsUnchanged(const Seen& seen) const;
  bool BelongsHere(const ProcessFacts& facts) const;
  bool IsTopmost(const Seen& seen) const;
  void Track(const ProcessSerialNumber& process, const QString& identity);
  void Forget(const ProcessSerialNumber& process);
  void Compare();
  void HasEnded(const ProcessSerialNumber& process);
  Known* FindKnown(const ProcessSerialNumber& process);
  std::optional<ApplicationInfo> LoginWindow(const ProcessSerialNumber& process);
  ProcessSerialNumber LoginWindowProcess();
  ApplicationInfo BareApplication(const QByteArray& exe) const;

  Session& session_;
  WindowOwnersFunction windowOwners_;
  DesktopEntries entries_;
  QByteArray ownSession_;
  std::unordered_map<pid_t, Seen> seen_;
  std::vector<std::unique_ptr<Known>> known_;
  Handler launched_;
  Handler terminated_;
  QTimer scan_;
  std::unique_ptr<ProcessEvents> events_;
};

}  // namespace vardell
