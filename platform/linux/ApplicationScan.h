// The applications of this session by what /proc shows at each look. Keeps what it has learnt, so
// that a look costs little: a process is examined when it is new, when it runs another program than
// before, and for a few seconds after its start, while a launcher may still move it to its unit. Of
// the others no more than the file that they run is looked at, or their user where it is another.
// Main thread only; never blocks beyond the look itself.
#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/Processes.h"
#include "platform/linux/DesktopEntries.h"
#include "platform/linux/Identify.h"
#include "platform/linux/ProcessTable.h"

namespace vardell {

// What is asked of the window system. Either may be empty.
struct Windows {
  std::function<std::vector<pid_t>()> owners;
  std::function<QList<QByteArray>(pid_t)> classes;
};

struct RunningApplication {
  ProcessSerialNumber process;  // the main one of its family
  QString key;                  // the entry's or the bare executable's path
  friend bool operator==(const RunningApplication&, const RunningApplication&) = default;
};

// Whose applications they are, besides the user's of this process: what lies in another session on
// a screen, and what runs this program, is none of them.
struct Viewpoint {
  QByteArray session;  // login session; empty: in none
  FileId program;
};
Viewpoint OwnViewpoint();

class ApplicationScan {
 public:
  ApplicationScan(DesktopEntries entries, Windows windows, Viewpoint viewpoint = OwnViewpoint());

  // Looks now. By pid; without the session leader, which is no application.
  std::vector<RunningApplication> Look(pid_t leader);

  // As of the last look; absent for a process that has ended since.
  std::optional<ApplicationInfo> Application(const ProcessSerialNumber& process) const;

 private:
  enum class Whose { Kernel, Others, Ours };
  // What a process is found to be. Nothing of it: no application.
  struct Found {
    QString entryId;
    QString key;
    bool isWrapper = false;
    bool isBare = false;
  };
  struct Known {
    ino_t inode = 0;
    std::uint64_t look = 0;  // the number of the last look that saw it
    Whose whose = Whose::Others;
    std::chrono::steady_clock::time_point firstSeen;
    ProcessStat stat;          // of the last close look; the parent's may be older than `families_`
    std::uint64_t family = 0;  // what `families_` was when the parent was read
    // As it was when it was examined last.
    bool isExamined = false;
    bool isSettled = false;          // no launcher will move it any more
    bool isToldByArguments = false;  // an interpreter, or one program of several entries
    bool isNone = false;  // whatever it shows: this program, a part of the session, another session
    ProcessImage image;
    QByteArray cgroup;
    QByteArray subject;  // path of the script that it runs, or of its executable
    Found found;
  };

  void LookAt(const ListedProcess& listed);
  void Begin(Known& known, const ListedProcess& listed);
  bool IsUnchanged(const Known& known) const;
  void LookAtOwn(Known& known);
  void Examine(Known& known, bool isSame);
  static Found FoundEntry(const Identity& identity);
  void JoinWrappers();
  void LookAtWindows();
  void MakeBare(Known& known);
  bool IsElsewhere(const QByteArray& cgroup) const;
  Known* Parent(Known& known);
  bool IsTopmost(Known& known);

  DesktopEntries entries_;
  Windows windows_;
  std::chrono::milliseconds settling_;  // how long a process counts as new
  Viewpoint viewpoint_;
  std::uint64_t look_ = 0;
  std::uint64_t families_ = 1;  // grows when a process has ended
  bool entriesChanged_ = false;
  std::unordered_map<pid_t, Known> known_;
  std::vector<pid_t> unknown_;  // examined at this look, and nothing by themselves
};

}  // namespace vardell
