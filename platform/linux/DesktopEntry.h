// One desktop entry, and what its program is on this machine.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

#include "platform/linux/FileId.h"

namespace vardell {

struct DesktopEntry {
  QString id;                  // the file's id without ".desktop"
  QString path;                // of the entry
  QString name;                // in the user's language
  bool isTrusted = false;      // in a system folder, and only the system's owner can write it
  bool isShown = true;         // no "NoDisplay"
  bool isSessionPart = false;  // a window manager, a panel: nothing that a person started
  QString windowClass;         // StartupWMClass; may be empty

  QByteArray baseName;  // of the program, or of the script that an interpreter is given; empty
                        // where neither tells the application (an interpreter alone, a launcher)
  QByteArray program;   // the executable's real path; empty: not found, or it tells nothing
  FileId programFile;
  QByteArray script;  // the real path of the script that an interpreter runs
  FileId scriptFile;
  QList<QByteArray> arguments;  // fixed ones of the command, that tell siblings apart
};

// Absent when the text is no application that can be started: another type, hidden, without Exec or
// Name in UTF-8, its TryExec not there. `languages` best first, as in "de_AT", "de".
// Looks for the program on this machine; leaves id, path and isTrusted alone.
std::optional<DesktopEntry> ParseDesktopEntry(const QByteArray& text, const QStringList& languages);

}  // namespace vardell
