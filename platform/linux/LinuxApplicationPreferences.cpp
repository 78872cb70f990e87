#include "platform/linux/LinuxApplicationPreferences.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/PropertyList.h"
#include "Common Sources/TestHooks.h"

namespace vardell {
namespace {

constexpr int kMostKeptAside = 9;
constexpr std::chrono::seconds kLockPatience{2};
constexpr int kLockPauseMs = 5;

QString ErrorText() {
  return QString::fromLocal8Bit(std::strerror(errno));
}

// Folders that are made are the user's alone, as configuration folders are.
bool MakeFolder(const QString& path) {
  if (QFileInfo(path).isDir()) return true;
  const QString parent = QFileInfo(path).path();
  if (parent == path || !MakeFolder(parent)) return false;
  return mkdir(QFile::encodeName(path).constData(), 0700) == 0 || errno == EEXIST;
}

// The folder, or the one in which it would be made.
bool IsAnothers(const QString& folder) {
  struct stat status {};
  if (lstat(QFile::encodeName(folder).constData(), &status) == 0) return status.st_uid != geteuid();
  const QString parent = QFileInfo(folder).path();
  return parent != folder && IsAnothers(parent);
}

}  // namespace

// A file system without locks leaves its users to chance.
bool LinuxApplicationPreferences::FolderLock::Take(const QString& folder) {
  if (IsTaken()) return true;
  folder_ = open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
  while (IsTaken() && flock(folder_, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      Release();
      errno = EWOULDBLOCK;
      break;
    }
    poll(nullptr, 0, kLockPauseMs);
  }
  return IsTaken();
}

void LinuxApplicationPreferences::FolderLock::Release() {
  if (IsTaken()) close(std::exchange(folder_, -1));
}

QString ApplicationPreferencesPath() {
  return ProductPath(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                     QStringLiteral("/com.brenwick.vardell5.plist"));
}

LinuxApplicationPreferences::LinuxApplicationPreferences(QString path) : path_(std::move(path)) {
  (void)Read(stored_);
}

LinuxApplicationPreferences::Stored LinuxApplicationPreferences::Read(QVariantMap& values) const {
  const QByteArray native = QFile::encodeName(path_);
  struct stat status {};
  if (stat(native.constData(), &status) != 0) {
    return errno == ENOENT ? Stored::Missing : Stored::Unreadable;
  }
  const std::optional<QByteArray> bytes = LoadFile(native, kMaxPropertyListBytes);
  if (!bytes) return Stored::Unreadable;
  const std::optional<QVariant> read = ReadPropertyListXml(*bytes);
  if (!read || read->typeId() != QMetaType::QVariantMap) return Stored::Unintelligible;
  values = read->toMap();
  return Stored::Dictionary;
}

std::optional<QVariant> LinuxApplicationPreferences::Value(const QString& key) {
  const QVariantMap& from = set_.contains(key) ? set_ : stored_;
  const auto value = from.constFind(key);
  return value == from.constEnd() ? std::nullopt : std::optional(*value);
}

void LinuxApplicationPreferences::SetValue(const QString& key, const QVariant& value) {
  set_.insert(key, value);
}

bool LinuxApplicationPreferences::Lock() {
  problem_.clear();
  if (!TakeLock()) return false;
  stored_.clear();
  (void)Read(stored_);
  return true;
}

bool LinuxApplicationPreferences::TakeLock() {
  const QString folder = QFileInfo(path_).path();
  if (geteuid() == 0 && IsAnothers(folder)) {
    return Fail(QStringLiteral("%1 is in a folder of another user's").arg(path_));
  }
  if (!MakeFolder(folder)) {
    return Fail(QStringLiteral("the folder %1 cannot be made: %2").arg(folder, ErrorText()));
  }
  if (lock_.Take(folder)) return true;
  return Fail(errno == EWOULDBLOCK
                  ? QStringLiteral("another program keeps %1 to itself").arg(path_)
                  : QStringLiteral("%1 cannot be opened: %2").arg(folder, ErrorText()));
}

bool LinuxApplicationPreferences::Synchronize() {
  problem_.clear();
  const bool wasLocked = lock_.IsTaken();
  const bool isStored = (set_.isEmpty() || TakeLock()) && Store();
  if (!wasLocked) lock_.Release();
  return isStored;
}

bool LinuxApplicationPreferences::Store() {
  QVariantMap values;
  const Stored stored = Read(values);
  if (stored == Stored::Unreadable) {
    return Fail(QStringLiteral("%1 cannot be read, and is left as it is").arg(path_));
  }
  values.insert(set_);
  if (!set_.isEmpty() && !Write(values, stored)) return false;
  stored_ = std::move(values);
  set_.clear();
  return true;
}

bool LinuxApplicationPreferences::Write(const QVariantMap& values, Stored stored) {
  const std::optional<QByteArray> xml = WritePropertyListXml(values);
  if (!xml) return Fail(QStringLiteral("the preferences are too large, or hold no text"));
  if (stored == Stored::Unintelligible && !KeepAside()) return false;
  // Unbuffered: what cannot be flushed does not keep a file from being committed.
  QSaveFile file(File());
  const bool isWritten = file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) &&
                         file.write(*xml) == xml->size() && file.commit();
  if (isWritten) return true;
  return Fail(QStringLiteral("%1 cannot be written: %2").arg(path_, file.errorString()));
}

// Where links lead: a further name of a link would keep nothing.
QString LinuxApplicationPreferences::File() const {
  const QString real = QFileInfo(path_).canonicalFilePath();
  return real.isEmpty() ? path_ : real;
}

// A further name, so that the file keeps its own until the new one takes its place.
bool LinuxApplicationPreferences::KeepAside() {
  const QString file = File();
  for (int number = 1; number <= kMostKeptAside; ++number) {
    const QString aside = QStringLiteral("%1.broken%2").arg(file).arg(number);
    if (link(QFile::encodeName(file).constData(), QFile::encodeName(aside).constData()) == 0) {
      keptAside_ = aside;
      return true;
    }
    if (errno != EEXIST) break;
  }
  return Fail(QStringLiteral("%1 holds no preferences, and cannot be kept aside: %2")
                  .arg(path_, ErrorText()));
}

bool LinuxApplicationPreferences::Fail(const QString& problem) {
  problem_ = problem;
  return false;
}

}  // namespace vardell
