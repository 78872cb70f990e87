// The classes of a process's top-level windows, for StartupWMClass. Main thread only; one round
// trip to the X server for each window.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QList>

#include "platform/linux/XcbDesktop.h"

namespace vardell {

// Instance and class of each window that the window manager knows. Empty where there is no X
// server.
QList<QByteArray> WindowClasses(pid_t owner);
QList<QByteArray> WindowClassesOn(const XcbDesktop& desktop, pid_t owner);

}  // namespace vardell
