#include "Common Sources/FileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace vardell {

namespace {

class Descriptor {
 public:
  Descriptor(const QByteArray& path, int flags, mode_t mode = 0)
      : descriptor(::open(path.constData(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode)) {}
  ~Descriptor() {
    if (descriptor >= 0) ::close(descriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool IsRegularFile(struct stat* facts) const {
    return descriptor >= 0 && ::fstat(descriptor, facts) == 0 && S_ISREG(facts->st_mode);
  }
  int Get() const { return descriptor; }

 private:
  int descriptor;
};

std::int32_t UrlStatus(int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return kUrlNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
      return kUrlAccessViolation;
    default:
      return kUrlUnknownError;
  }
}

bool WriteAll(int descriptor, const QByteArray& bytes) {
  qsizetype written = 0;
  while (written < bytes.size()) {
    const ssize_t count = ::write(descriptor, bytes.constData() + written,
                                  static_cast<std::size_t>(bytes.size() - written));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    written += count;
  }
  return ::fsync(descriptor) == 0;
}

}  // namespace

std::int32_t FileManagerStatus(int errorNumber) {
  switch (errorNumber) {
    case 0:
      return 0;
    case ENOENT:
    case ENOTDIR:
      return kFileNotFound;
    case EEXIST:
    case EISDIR:
    case ENOTEMPTY:
      return kFileNameExists;
    case EACCES:
    case EPERM:
    case EROFS:
      return kFilePermission;
    case ENOSPC:
    case EDQUOT:
      return kFileDiskFull;
    case ENAMETOOLONG:
    case EINVAL:
      return kFileBadName;
    default:
      return kFileIoError;
  }
}

QUrl FileUrl(const QString& path) {
  // Two leading slashes would be read as a host's name.
  qsizetype slashes = 0;
  while (slashes + 1 < path.size() && path[slashes] == u'/' && path[slashes + 1] == u'/') ++slashes;
  return QUrl::fromLocalFile(path.mid(slashes));
}

std::optional<QByteArray> EncodeUTF8(QStringView text) {
  if (!text.isValidUtf16()) return std::nullopt;
  return text.toUtf8();
}

std::optional<QByteArray> NativePath(const QString& path) {
  if (path.isEmpty() || path.contains(QChar(0))) return std::nullopt;
  return EncodeUTF8(path);
}

std::optional<QByteArray> NativePath(const QUrl& url) {
  const bool isOurs = url.isLocalFile() && (url.host().isEmpty() || url.host() == u"localhost");
  if (!isOurs) return std::nullopt;
  return NativePath(url.path(QUrl::FullyDecoded));
}

std::optional<QByteArray> LoadFile(const QByteArray& nativePath, std::size_t limit) {
  const Descriptor file(nativePath, O_RDONLY);
  struct stat facts = {};
  if (!file.IsRegularFile(&facts)) return std::nullopt;
  if (static_cast<std::uint64_t>(facts.st_size) > limit) return std::nullopt;
  // The file may grow meanwhile; one byte beyond the limit tells.
  const std::size_t room = limit + 1;
  QByteArray bytes;
  for (;;) {
    char block[65536];
    const std::size_t wanted =
        std::min(sizeof block, room - static_cast<std::size_t>(bytes.size()));
    const ssize_t count = ::read(file.Get(), block, wanted);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) return bytes;
    bytes.append(block, count);
    if (static_cast<std::size_t>(bytes.size()) > limit) return std::nullopt;
  }
}

std::int32_t StoreFile(const QByteArray& nativePath, const QByteArray& bytes) {
  const Descriptor file(nativePath, O_WRONLY | O_CREAT, 0644);
  if (file.Get() < 0) return UrlStatus(errno);
  struct stat facts = {};
  if (!file.IsRegularFile(&facts)) return kUrlUnknownError;
  if (::ftruncate(file.Get(), 0) != 0 || !WriteAll(file.Get(), bytes)) return kUrlUnknownError;
  return 0;
}

}  // namespace vardell
