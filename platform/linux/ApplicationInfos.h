// What an application is called and known by, for the running as for the installed ones: both must
// give the same identifier.
#pragma once

#include <QByteArray>

#include "platform/Processes.h"

namespace vardell {

ApplicationInfo InfoOfEntry(const QString& id, const QString& path, const QString& name);

// A program or script without an entry, by its real path. Its creator code is the extended
// attribute "user.creator" (4 bytes), or else the first four bytes of its name.
ApplicationInfo InfoOfBare(const QByteArray& path);

}  // namespace vardell
