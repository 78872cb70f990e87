// The pictures that are compiled into the program, each in two sizes (22 pixels, and 44 for screens
// of double resolution). Main thread only, once the application object is there.
#pragma once

#include <QIcon>

namespace vardell {

// Never empty: where the pictures cannot be read, for want of Qt's TIFF plugin, a plain disc stands
// in, and a line on standard error says so.
QIcon EyeIcon();
QIcon LockIcon();

}  // namespace vardell
