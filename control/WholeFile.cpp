#include "control/WholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Common Sources/FileSystem.h"
#include "control/HeldSignals.h"

namespace vardell::control {
namespace {

QByteArray FolderOf(const QString& path) {
  return QFile::encodeName(QFileInfo(path).path());
}

bool WriteAll(int fd, const QByteArray& bytes) {
  qsizetype written = 0;
  while (written < bytes.size()) {
    const ssize_t count =
        write(fd, bytes.constData() + written, static_cast<std::size_t>(bytes.size() - written));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    written += count;
  }
  return true;
}

bool Fill(int fd, const QByteArray& bytes, mode_t mode) {
  return fchmod(fd, mode) == 0 && WriteAll(fd, bytes) && fsync(fd) == 0;
}

QString CannotWrite(const QString& path, int errorNumber) {
  return QStringLiteral("%1 cannot be written: %2").arg(path, ErrorText(errorNumber));
}

}  // namespace

QString ErrorText(int errorNumber) {
  return QString::fromLocal8Bit(std::strerror(errorNumber));
}

QString WriteWholeFile(const QString& path, const QByteArray& bytes, mode_t mode) {
  const QByteArray native = QFile::encodeName(path);
  struct stat facts {};
  if (lstat(native.constData(), &facts) == 0 && !S_ISREG(facts.st_mode)) {
    return QStringLiteral("%1 is there and is no regular file; name another one").arg(path);
  }
  // Ctrl+C would leave the hidden file behind.
  const HeldSignals held;
  QByteArray temporary =
      FolderOf(path) + "/." + QFile::encodeName(QFileInfo(path).fileName()).left(200) + ".XXXXXX";
  const int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return CannotWrite(path, errno);
  bool isDone = Fill(fd, bytes, mode);
  int error = errno;
  isDone = close(fd) == 0 && isDone;
  if (isDone && std::rename(temporary.constData(), native.constData()) != 0) {
    isDone = false;
    error = errno;
  }
  if (isDone) return SynchronizeFolderOf(path) ? QString() : CannotWrite(path, errno);
  (void)unlink(temporary.constData());
  return CannotWrite(path, error);
}

bool SynchronizeFolderOf(const QString& path) {
  const int fd = open(FolderOf(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  // Some file systems cannot, and say so.
  const bool isDone = fsync(fd) == 0 || errno == EINVAL;
  close(fd);
  return isDone;
}

LoadedFile LoadWholeFile(const QString& path, std::size_t limit) {
  const QByteArray native = QFile::encodeName(path);
  struct stat facts {};
  if (stat(native.constData(), &facts) != 0) {
    const int error = errno;
    return {{}, error == ENOENT, QStringLiteral("%1: %2").arg(path, ErrorText(error))};
  }
  if (!S_ISREG(facts.st_mode)) {
    return {{}, false, QStringLiteral("%1 is no regular file").arg(path)};
  }
  if (static_cast<std::uint64_t>(facts.st_size) > limit) {
    return {{}, false, QStringLiteral("%1 is larger than %2 MiB").arg(path).arg(limit >> 20)};
  }
  errno = 0;
  std::optional<QByteArray> bytes = LoadFile(native, limit);
  if (bytes) return {std::move(bytes), false, {}};
  return {{}, false, QStringLiteral("%1 cannot be read: %2").arg(path, ErrorText(errno))};
}

QString FreeName(const QString& path, const QString& ending) {
  QString name = path + ending;
  struct stat facts {};
  for (int number = 2; lstat(QFile::encodeName(name).constData(), &facts) == 0; ++number) {
    name = path + ending + QStringLiteral("-%1").arg(number);
  }
  return name;
}

}  // namespace vardell::control
