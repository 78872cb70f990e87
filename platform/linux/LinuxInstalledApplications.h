// Installed applications by the desktop entries of the system's folders, as the desktop's own menu
// offers them: an entry is left out that is hidden, not to be displayed, not for this desktop,
// incomplete, part of the session, or without its program; and so is one whose id a folder of
// higher precedence has too, whatever that one says.
#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

#include "platform/InstalledApplications.h"
#include "platform/linux/DesktopEntries.h"
#include "platform/linux/DesktopEntryKeys.h"

namespace vardell {

// The names of the desktop that this program runs on, from XDG_CURRENT_DESKTOP.
QStringList CurrentDesktops();

class LinuxInstalledApplications : public InstalledApplications {
 public:
  // Of the system. On a desktop that is not known, what is for one of them is offered too.
  explicit LinuxInstalledApplications(QStringList desktops = CurrentDesktops());

  std::vector<QString> Folders() override;
  std::vector<InstalledItem> Items(const QString& folder) override;

  // An entry of a user's own folder has the identifier that this user's agent knows it by. An
  // executable that an entry starts is that entry's application, as it is when it runs.
  std::variant<ApplicationInfo, NotApplication> Application(const QString& path) override;

  QString MachineName() override;

 private:
  struct Place {
    std::size_t folder = 0;  // index into folders_
    QString prefix;          // of the ids there: the names of the folders below it
  };
  std::optional<Place> PlaceOf(const QString& folder) const;
  const QSet<QString>& IdsBefore(std::size_t folder);
  std::optional<ApplicationInfo> Offered(const QString& path, const QString& id) const;
  bool IsForThisDesktop(const DesktopEntryKeys& keys) const;
  std::optional<QString> IdOfEntry(const QString& path) const;
  std::variant<ApplicationInfo, NotApplication> EntryAt(const QString& path) const;
  std::variant<ApplicationInfo, NotApplication> ExecutableAt(const QByteArray& path);

  std::vector<ApplicationFolder> folders_;
  DesktopEntries entries_;
  QStringList desktops_;
  QStringList languages_;
  std::vector<QSet<QString>> idsBefore_;  // for each folder the ids of all before it
};

}  // namespace vardell
