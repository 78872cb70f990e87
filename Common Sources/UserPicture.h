// The picture of a user's account. Main thread; blocks while commands run.
#pragma once

#include <QImage>
#include <QString>

namespace vardell {

// From the directory service, else from the account service's icon file, else from ".face" in the
// user's home folder; null where none of them holds an image. The directory service is asked
// through a shell, and only for a portable user name (ShellHelpers.h).
QImage CopyUserPicture(const QString& userName);

}  // namespace vardell
