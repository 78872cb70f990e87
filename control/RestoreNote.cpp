#include "control/RestoreNote.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QFile>

#include "Common Sources/Caps.h"
#include "control/Answers.h"
#include "control/SettingsFile.h"
#include "control/WholeFile.h"

namespace vardell::control {
namespace {

QString NotePath() {
  return SettingsPath() + QStringLiteral(".restoring");
}

bool IsRestoreRunning() {
  const QByteArray path = QFile::encodeName(SettingsPath() + QStringLiteral(".lock"));
  const int lock = open(path.constData(), O_RDWR | O_CLOEXEC);
  if (lock < 0) return false;
  const bool isFree = flock(lock, LOCK_EX | LOCK_NB) == 0;
  close(lock);
  return !isFree;
}

}  // namespace

QString NotedRestore() {
  const LoadedFile note = LoadWholeFile(NotePath(), kMaxControlBodyBytes);
  return note.bytes ? QString::fromUtf8(*note.bytes) : QString();
}

QString NoteRestore(const QString& keptPath) {
  return WriteWholeFile(NotePath(), keptPath.toUtf8(), 0600);
}

void ForgetRestore() {
  (void)unlink(QFile::encodeName(NotePath()).constData());
}

QString UnfinishedRestoreNotice() {
  const QString kept = NotedRestore();
  if (kept.isEmpty() || IsRestoreRunning()) return {};
  return QStringLiteral(
             "a restore did not come to its end. What was there before it is kept:\n"
             "vardellctl restore %1 takes it back.")
      .arg(ShellWord(kept));
}

}  // namespace vardell::control
