#include "control/SettingsFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>

#include "Common Sources/Caps.h"
#include "Common Sources/PropertyList.h"
#include "Common Sources/PropertyListFiles.h"
#include "Common Sources/TestHooks.h"
#include "control/HeldSignals.h"
#include "platform/Preferences.h"

namespace vardell::control {
namespace {

constexpr int kLockAttempts = 200;
constexpr int kBetweenAttemptsMs = 50;

// Files and folders that are made here are for every agent to read, whatever root's umask says.
class ReadableByAll {
 public:
  ReadableByAll() : before_(umask(022)) {}
  ~ReadableByAll() { umask(before_); }

 private:
  mode_t before_;
};

QString KeptPath() {
  return SettingsPath() + QStringLiteral(".kept");
}

QByteArray Native(const QString& path) {
  return QFile::encodeName(path);
}

bool Exists(const QString& path) {
  struct stat facts {};
  return lstat(Native(path).constData(), &facts) == 0;
}

bool Remove(const QString& path) {
  return unlink(Native(path).constData()) == 0 || errno == ENOENT;
}

StoredSettings Parse(const LoadedFile& file) {
  if (file.isMissing) return {};
  if (!file.bytes) return {{}, file.problem};
  const std::optional<QVariant> read = ReadPropertyListXml(*file.bytes);
  if (read && read->typeId() == QMetaType::QVariantMap) return {read->toMap(), {}};
  return {{},
          QStringLiteral("%1 holds no settings that can be read, and is left as it is.\n"
                         "Move it away, or mend it, and try again.")
              .arg(SettingsPath())};
}

LoadedFile Load() {
  return LoadWholeFile(SettingsPath(), kMaxPropertyListBytes);
}

QString CannotChange(const QString& what) {
  const QString text = QStringLiteral("the settings cannot be changed: %1").arg(what);
  return geteuid() == 0 ? text : text + QStringLiteral("\nOnly root may change them.");
}

// The replacing write reports neither a full disk nor a file that it cut short: what can be read
// back counts.
bool Replace(const QVariantMap& values) {
  const ReadableByAll readable;
  const QString path = SettingsPath();
  if (!Remove(path + QStringLiteral(".tmp"))) return false;
  return WritePropertyListToPath(values, path, false) == 0 && SynchronizeFolderOf(path) &&
         ReadPropertyListFromPath(path) == QVariant(values);
}

}  // namespace

QString SettingsPath() {
  return ProductPath(QLatin1String(kSystemPreferencesPath));
}

StoredSettings ReadSettings() {
  return Parse(Load());
}

bool HasInterruptedChange() {
  if (!Exists(KeptPath())) return false;
  const LoadedFile file = Load();
  return file.isMissing || !Parse(file).problem.isEmpty();
}

SettingsEditor::SettingsEditor() : problem_(Lock()) {
  if (!problem_.isEmpty()) return;
  Repair();
  before_ = Load();
  StoredSettings stored = Parse(before_);
  values_ = std::move(stored.values);
  problem_ = stored.problem;
}

SettingsEditor::~SettingsEditor() {
  if (lock_ < 0) return;
  if (problem_.isEmpty() && !needsCopy_) (void)Remove(KeptPath());
  close(lock_);
}

QString SettingsEditor::Lock() {
  const ReadableByAll readable;
  const QString path = SettingsPath();
  if (!QDir().mkpath(QFileInfo(path).path())) {
    return CannotChange(QStringLiteral("the folder %1 cannot be made").arg(QFileInfo(path).path()));
  }
  const QString lockPath = path + QStringLiteral(".lock");
  lock_ = open(Native(lockPath).constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock_ < 0) return CannotChange(QStringLiteral("%1: %2").arg(lockPath, ErrorText(errno)));
  for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
    if (flock(lock_, LOCK_EX | LOCK_NB) == 0) return {};
    (void)poll(nullptr, 0, kBetweenAttemptsMs);
  }
  return QStringLiteral(
      "another vardellctl is changing the settings.\nTry again when it has ended.");
}

void SettingsEditor::Repair() {
  if (!HasInterruptedChange()) return;
  isRepaired_ =
      std::rename(Native(KeptPath()).constData(), Native(SettingsPath()).constData()) == 0 &&
      SynchronizeFolderOf(SettingsPath());
}

QString SettingsEditor::Write(const QVariantMap& values) {
  if (!WritePropertyListXml(values)) {
    return CannotChange(QStringLiteral("a value is none that the file can hold"));
  }
  const HeldSignals held;
  if (before_.bytes) {
    const QString problem = WriteWholeFile(KeptPath(), *before_.bytes, 0644);
    if (!problem.isEmpty()) return CannotChange(problem);
  }
  wasWritten_ = true;
  if (Replace(values)) return {};
  const QString failed = QStringLiteral("%1 could not be written").arg(SettingsPath());
  const QString trouble = PutBack();
  return CannotChange(failed) + QLatin1Char('\n') +
         (trouble.isEmpty() ? QStringLiteral("They are as they were. Is the disk full?") : trouble);
}

QString SettingsEditor::PutBack() {
  if (!wasWritten_) return {};
  const HeldSignals held;
  (void)Remove(SettingsPath() + QStringLiteral(".tmp"));
  if (!before_.bytes) {
    return Remove(SettingsPath())
               ? QString()
               : QStringLiteral("%1 is to be removed: there was none before.").arg(SettingsPath());
  }
  // Where the disk is full there is the copy, which needs no room.
  const bool isBack =
      std::rename(Native(KeptPath()).constData(), Native(SettingsPath()).constData()) == 0 ||
      WriteWholeFile(SettingsPath(), *before_.bytes, 0644).isEmpty();
  if (isBack && SynchronizeFolderOf(SettingsPath())) return {};
  needsCopy_ = true;
  return QStringLiteral("The settings as they were are in %1: move that file to %2.")
      .arg(KeptPath(), SettingsPath());
}

}  // namespace vardell::control
