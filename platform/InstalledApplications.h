// The applications that are installed on this machine, whether they run or not.
// Implemented by platform/linux/ and by a fake in tests/support/. Called on the main thread only;
// reads folders and small files. Holds no policy: which of them are listed is decided elsewhere.
#pragma once

#include <QString>
#include <optional>
#include <variant>
#include <vector>

#include "platform/Processes.h"

namespace vardell {

struct InstalledItem {
  QString path;
  bool isContainer = false;                    // a folder that may hold further items
  std::optional<ApplicationInfo> application;  // absent for what is offered to nobody
};

// Why there is no application at a path.
enum class NotApplication {
  Missing,
  Folder,
  Unreadable,
  NotExecutable,
  Incomplete,   // an entry without a command or a name, or none of an application
  Hidden,       // an entry that says that it counts as deleted
  NoProgram,    // an entry whose program is not on this machine
  Elsewhere,    // an entry outside all folders of applications: nothing is started by it
  SessionPart,  // a window manager, a panel: no application when it runs
  Reserved,     // its name means something else than an application
};

class InstalledApplications {
 public:
  virtual ~InstalledApplications() = default;

  // The Applications folders in order of precedence. A scan begins with this call: what one folder
  // hides of another is as of then.
  virtual std::vector<QString> Folders() = 0;

  // What lies directly in one of Folders() or below it, by name; empty where it cannot be read.
  virtual std::vector<InstalledItem> Items(const QString& folder) = 0;

  // What runs when that file is started: also what Items() offers to nobody.
  virtual std::variant<ApplicationInfo, NotApplication> Application(const QString& path) = 0;

  // The name that its users know the machine by.
  virtual QString MachineName() = 0;
};

}  // namespace vardell
