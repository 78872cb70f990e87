// The applications that are installed, as their desktop entries tell, indexed by what a running
// process shows of itself. Entries of system folders come before those of the user's own: who may
// write a file into the home folder must not be able to rename or hide an installed application.
// Format: the desktop entry specification 1.5, group "Desktop Entry".
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <memory>
#include <optional>
#include <vector>

namespace vardell {

struct DesktopEntry {
  QString id;  // the file's id without ".desktop"
  QString path;
  QString name;  // in the user's language
  bool rootOwned = false;
  QByteArray program;  // resolved first word of Exec (after env and its settings); empty: not found
  QByteArray script;   // the script that an interpreter in Exec is given, resolved
  QByteArray baseName;  // of the program as Exec has it
};

class DesktopEntries {
 public:
  // Folders in order of precedence.
  explicit DesktopEntries(std::vector<QString> folders);

  // Reads them again when one has changed since. True when it did.
  bool Update();

  const DesktopEntry* ById(const QString& id) const;
  const DesktopEntry* ByProgram(const QByteArray& path) const;
  const DesktopEntry* ByScript(const QByteArray& path) const;
  const DesktopEntry* ByBaseName(const QByteArray& name) const;

 private:
  void Read();
  void ReadFolder(const QString& folder, const QString& prefix, int depth);
  void Add(DesktopEntry entry);

  std::vector<QString> folders_;
  QList<qint64> stamps_;
  std::vector<std::unique_ptr<DesktopEntry>> entries_;
  QHash<QString, const DesktopEntry*> byId_;
  QHash<QByteArray, const DesktopEntry*> byProgram_;
  QHash<QByteArray, const DesktopEntry*> byScript_;
  QHash<QByteArray, const DesktopEntry*> byBaseName_;
};

// The system's folders, then those of the user whose home this is.
std::vector<QString> ApplicationFolders(const QString& home);

// Absent when the text is no application that is shown: another type, hidden, no Exec or no Name.
// `locale` as in "de_AT".
std::optional<DesktopEntry> ParseDesktopEntry(const QByteArray& text, const QString& locale);

// A program that runs other programs' text: its own executable names no application.
bool IsInterpreter(const QByteArray& path);

}  // namespace vardell
