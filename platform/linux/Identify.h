// Which application a process is. Pure: a function of what the kernel tells and of what is
// installed.
#pragma once

#include <QByteArray>
#include <QString>

#include "platform/linux/DesktopEntries.h"
#include "platform/linux/ProcessTable.h"

namespace vardell {

struct Identity {
  const DesktopEntry* entry = nullptr;  // null: no application that is installed
  // A shell runs the entry's script: what it starts in its place or below it belongs to the same
  // application, unless that is one by itself.
  bool isWrapper = false;
};

// The entry that the process belongs to, as a main process or as a helper. Tried in this order:
//   1. the script that its interpreter runs, or its executable, where a trusted entry names it
//   2. its cgroup unit        3. its sandbox
//   4. its script             5. its executable, where an entry of the user's names it
//   6. the image that its executable is mounted from
//   7. the base name of either, which a program keeps that is started through a wrapper
//   8. the entry that its launcher names         9. the class of its windows
// 2, 3, 6, 8 and 9 can be chosen by whoever starts the process; 1 cannot.
Identity Identify(const ProcessFacts& process, const DesktopEntries& entries);

// True for window managers, panels and the like: they are no applications, with windows or without.
bool IsSessionPart(const ProcessFacts& process, const DesktopEntries& entries);

// The entry that the unit names of a cgroup path tell, the innermost first:
// "app-[launcher-]ID-RANDOM.scope", "app-[launcher-]ID@RANDOM.service", "app-flatpak-ID-N.scope",
// "snap.NAME.APP….scope"; null where there is none that is installed.
const DesktopEntry* EntryOfCgroup(const QByteArray& cgroup, const DesktopEntries& entries);

// The login session ("2") of a cgroup path whose scope the session manager made; empty for none.
QByteArray SessionOfCgroup(const QByteArray& cgroup);

}  // namespace vardell
