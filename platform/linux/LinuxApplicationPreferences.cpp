#include "platform/linux/LinuxApplicationPreferences.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <cerrno>
#include <cstring>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/PropertyList.h"
#include "Common Sources/TestHooks.h"

namespace vardell {
namespace {

constexpr int kMostKeptAside = 9;

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

}  // namespace

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

bool LinuxApplicationPreferences::Synchronize() {
  problem_.clear();
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
  const QString folder = QFileInfo(path_).path();
  if (!MakeFolder(folder)) {
    return Fail(QStringLiteral("the folder %1 cannot be made: %2").arg(folder, ErrorText()));
  }
  if (stored == Stored::Unintelligible && !KeepAside()) return false;
  // Unbuffered: what cannot be flushed does not keep a file from being committed.
  QSaveFile file(path_);
  const bool isWritten = file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) &&
                         file.write(*xml) == xml->size() && file.commit();
  if (isWritten) return true;
  return Fail(QStringLiteral("%1 cannot be written: %2").arg(path_, file.errorString()));
}

// A further name, so that the file keeps its own until the new one takes its place.
bool LinuxApplicationPreferences::KeepAside() {
  for (int number = 1; number <= kMostKeptAside; ++number) {
    const QString aside = QStringLiteral("%1.broken%2").arg(path_).arg(number);
    if (link(QFile::encodeName(path_).constData(), QFile::encodeName(aside).constData()) == 0) {
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
