// A file that is there as a whole or not at all, whatever happens while it is written. Blocks for
// as long as the disk does.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QString>
#include <optional>

namespace vardell::control {

// Writes a hidden file beside `path` and lets it take the name once it is on the disk; what had the
// name before stays until then. Refused where the name belongs to something that is no regular
// file. Empty, or for people why not; then all is as it was.
[[nodiscard]] QString WriteWholeFile(const QString& path, const QByteArray& bytes, mode_t mode);

// The names of the folder as they are now last through a loss of power.
[[nodiscard]] bool SynchronizeFolderOf(const QString& path);

struct LoadedFile {
  std::optional<QByteArray> bytes;
  bool isMissing = false;
  QString problem;  // for people, where there are no bytes
};

// A regular file of at most `limit` bytes.
LoadedFile LoadWholeFile(const QString& path, std::size_t limit);

// "FILE" with the ending, or with "-2", "-3" ... behind it: the first that nothing has.
QString FreeName(const QString& path, const QString& ending);

QString ErrorText(int errorNumber);

}  // namespace vardell::control
