// Which application a process is. Pure: a function of what the kernel tells and of what is
// installed.
#pragma once

#include <QString>

#include "platform/linux/DesktopEntries.h"
#include "platform/linux/ProcessTable.h"

namespace vardell {

// The entry that the process belongs to, as a main process or as a helper; null for none.
const DesktopEntry* Identify(const ProcessFacts& process, const DesktopEntries& entries);

// The application id in the unit name of a cgroup path: "app-[launcher-]ID-RANDOM.scope",
// "app-flatpak-ID-N.scope", "snap.NAME.APP.…"; empty where there is none.
QString ApplicationOfCgroup(const QByteArray& cgroup);

// "session-N.scope" of a cgroup path; empty where there is none.
QByteArray SessionOfCgroup(const QByteArray& cgroup);

}  // namespace vardell
