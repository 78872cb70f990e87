// The applications that are installed, as their desktop entries tell, indexed by what a running
// process shows of itself. Entries of system folders come before those of the user's own: who may
// write a file into the home folder must not be able to rename or hide an installed application.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <chrono>
#include <memory>
#include <vector>

#include "platform/linux/DesktopEntry.h"

namespace vardell {

struct ApplicationFolder {
  QString path;
  bool isSystem = false;  // entries of the user's folders are never trusted
};

class DesktopEntries {
 public:
  using List = QList<const DesktopEntry*>;  // trusted ones first

  // Folders in order of precedence. Nothing is read before the first Update().
  explicit DesktopEntries(std::vector<ApplicationFolder> folders);

  // Reads the folders again when one of them has changed since. However often they change, reading
  // takes no more than a twentieth of the time. True when it read; earlier pointers are void then.
  bool Update();

  // Valid until Update() answers true.
  const DesktopEntry* ById(const QString& id) const;
  const DesktopEntry* ByPath(const QString& path) const;
  // By the file where it is known, else by the path.
  List ByProgram(const QByteArray& path, const FileId& file) const;
  List ByScript(const QByteArray& path, const FileId& file) const;
  List ByBaseName(const QByteArray& name) const;
  List ByWindowClass(const QString& windowClass) const;

  // True for the executable of a window manager, a panel and the like, which no entry names.
  // Path and file as above.
  bool IsSessionPart(const QByteArray& path, const FileId& file) const;

 private:
  struct Reading;
  void Read();
  void ReadFolder(const QString& path, const QString& prefix, int depth, Reading& reading);
  void ReadFile(const QString& path, const QString& id, const Reading& reading);
  void Add(DesktopEntry entry);
  void AddSessionPart(const QByteArray& program);
  bool HasChanged() const;

  std::vector<ApplicationFolder> folders_;
  std::vector<QString> visited_;  // folders and their subfolders, and when they changed last
  QList<qint64> stamps_;
  std::chrono::steady_clock::time_point notBefore_{};
  std::vector<std::unique_ptr<DesktopEntry>> entries_;
  QHash<QString, const DesktopEntry*> byId_;
  QHash<QString, const DesktopEntry*> byPath_;
  QHash<QByteArray, List> byProgram_;
  QHash<FileId, List> byProgramFile_;
  QHash<QByteArray, List> byScript_;
  QHash<FileId, List> byScriptFile_;
  QHash<QByteArray, List> byBaseName_;
  QHash<QString, List> byWindowClass_;
  QSet<QByteArray> sessionPrograms_;
  QSet<FileId> sessionFiles_;
};

// True for an id that means something else than an application.
bool IsReservedId(const QString& id);

// The system's folders, then those of the user whose home this is.
std::vector<ApplicationFolder> ApplicationFolders(const QString& home);
// With the home folder that this process's user has by the account.
std::vector<ApplicationFolder> OwnApplicationFolders();

}  // namespace vardell
