#include "platform/linux/FileId.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace vardell {

FileId IdOfFile(const QByteArray& path) {
  struct statx status {};
  if (path.isEmpty() ||
      statx(AT_FDCWD, path.constData(), AT_STATX_DONT_SYNC, STATX_INO, &status) != 0) {
    return {};
  }
  return {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
}

}  // namespace vardell
