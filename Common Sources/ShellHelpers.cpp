#include "Common Sources/ShellHelpers.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

#include "Common Sources/FileSystem.h"
#include "Common Sources/PropertyListFiles.h"

namespace vardell {

namespace {

constexpr std::size_t kListingBytes = 4096;
constexpr std::size_t kMaxMappedPathBytes = 8192;

std::int32_t PidOfListed(const char* command) {
  const CommandOutput output(::popen(command, "r"));
  if (!output) return -1;
  char listing[kListingBytes] = {};
  const std::size_t size = std::fread(listing, 1, sizeof listing, output.get());
  return PidFromProcessList(QByteArray(listing, static_cast<qsizetype>(size)));
}

std::optional<QByteArray> EncodeCommand(const QString& command) {
  if (command.isEmpty() || command.contains(QChar(0))) return std::nullopt;
  return EncodeUTF8(command);
}

using Create = int (*)(const char* path);

int CreateDirectory(const char* path) {
  return ::mkdir(path, 0755);
}

int CreateFile(const char* path) {
  const int descriptor = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (descriptor < 0) return -1;
  ::close(descriptor);
  return 0;
}

bool IsDirectory(const QByteArray& path) {
  struct stat facts = {};
  return ::stat(path.constData(), &facts) == 0 && S_ISDIR(facts.st_mode);
}

std::int32_t CreateAtURL(const QUrl& url, QString* outPath, Create create) {
  QString name;
  if (GetFileNameFromURL(url, &name) != 0) return kCreateNotTried;
  std::optional<QByteArray> path = NativePath(url);
  if (!path) return kCreateNotTried;
  while (path->endsWith('/')) path->chop(1);
  const QByteArray parent = path->left(path->lastIndexOf('/') + 1);
  if (!IsDirectory(parent.isEmpty() ? QByteArray(".") : parent)) return kCreateNotTried;

  const std::int32_t status = create(path->constData()) == 0 ? 0 : FileManagerStatus(errno);
  if (status != 0 && status != kFileNameExists) return status;
  if (outPath) *outPath = QString::fromUtf8(*path);
  return 0;
}

// -1 for what is no regular file.
int OpenForMapping(const QByteArray& path, bool writable) {
  const int access = writable ? O_RDWR : O_RDONLY;
  const int descriptor = ::open(path.constData(), access | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (descriptor < 0) return -1;
  struct stat facts = {};
  // Descriptor 0 counts as a failure by contract.
  if (descriptor > 0 && ::fstat(descriptor, &facts) == 0 && S_ISREG(facts.st_mode)) {
    return descriptor;
  }
  ::close(descriptor);
  return -1;
}

}  // namespace

std::int32_t GetLoginItemPid() {
  return PidOfListed("ps auxww | grep \"Vardell Login Item\" | grep -v \"grep\"");
}

std::int32_t GetServerPid() {
  return PidOfListed("ps auxww | grep \"Vardell_3_Server\" | grep -v \"grep\"");
}

std::int32_t GetWindowServerPid() {
  return PidOfListed("ps auxww | grep \"WindowServer\" | grep -v \"grep\"");
}

std::int32_t PidFromProcessList(const QByteArray& listing) {
  const qsizetype blank = listing.indexOf(' ');
  if (blank < 0) return -1;
  const long value = std::strtol(listing.constData() + blank, nullptr, 0);
  const bool isPid = value >= 1 && value <= std::numeric_limits<std::int32_t>::max();
  return isPid ? static_cast<std::int32_t>(value) : -1;
}

CommandOutput OpenCommandOutput(const QString& command) {
  const std::optional<QByteArray> bytes = EncodeCommand(command);
  return CommandOutput(bytes ? ::popen(bytes->constData(), "r") : nullptr);
}

std::int32_t RunShellCommand(const QString& command) {
  const std::optional<QByteArray> bytes = EncodeCommand(command);
  return bytes ? std::system(bytes->constData()) : 0;
}

bool IsPortableName(const QString& name) {
  if (name.isEmpty() || name.size() > 255 || name.startsWith(u'-')) return false;
  if (name == u"." || name == u"..") return false;
  for (const QChar c : name) {
    const bool isAlphanumeric =
        (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9');
    if (!isAlphanumeric && c != u'.' && c != u'_' && c != u'-') return false;
  }
  return true;
}

std::unique_ptr<char[]> CopyUTF8CString(const QString& string, std::size_t* outLength) {
  if (string.isNull()) return nullptr;
  if (outLength) *outLength = 0;
  auto buffer = std::make_unique<char[]>(static_cast<std::size_t>(string.size()) * 3 + 4);
  const std::optional<QByteArray> bytes = EncodeUTF8(string);
  if (!bytes) return buffer;
  const auto size = static_cast<std::size_t>(bytes->size());
  std::memcpy(buffer.get(), bytes->constData(), size);
  if (outLength) *outLength = size;
  return buffer;
}

std::int32_t CreateDirectoryAtURL(const QUrl& url, QString* outPath) {
  return CreateAtURL(url, outPath, CreateDirectory);
}

std::int32_t CreateFileAtURL(const QUrl& url, QString* outPath) {
  return CreateAtURL(url, outPath, CreateFile);
}

std::int32_t MapFileIntoMemory(const QString& path, std::uint64_t length, void** outAddress,
                               std::uint64_t* outLength, std::int16_t permission) {
  *outAddress = nullptr;
  *outLength = 0;
  const std::optional<QByteArray> nativePath = NativePath(path);
  if (!nativePath) return kFileNotFound;
  if (static_cast<std::size_t>(nativePath->size()) >= kMaxMappedPathBytes) return kFileBadName;

  const bool writable = permission == kReadWritePermission;
  const int descriptor = OpenForMapping(*nativePath, writable);
  if (descriptor < 1) return kMapNotOpened;
  if (length == kWholeFile) {
    length = static_cast<std::uint64_t>(::lseek(descriptor, 0, SEEK_END));
    (void)::lseek(descriptor, 0, SEEK_SET);
  }
  const int protection = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  void* address = ::mmap(nullptr, length, protection, MAP_SHARED, descriptor, 0);
  *outAddress = address;
  if (address != nullptr && address != MAP_FAILED) *outLength = length;
  ::close(descriptor);
  return 0;
}

}  // namespace vardell
