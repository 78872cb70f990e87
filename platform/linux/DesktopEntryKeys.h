// What the text of a desktop entry says. Format: freedesktop.org desktop entries 1.5, group
// "Desktop Entry". Pure: nothing is looked for on this machine.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <optional>

namespace vardell {

struct DesktopEntryKeys {
  QString name;  // in the user's language; may be empty
  QString exec;
  QString tryExec;
  QString windowClass;         // StartupWMClass
  bool isHidden = false;       // counts as deleted
  bool isDisplayed = true;     // no "NoDisplay"
  bool isSessionPart = false;  // a window manager, a panel
  QStringList onlyShowIn;      // empty: wherever notShowIn does not forbid it
  QStringList notShowIn;
};

// Absent for what is no application, and where the name or the command is no UTF-8. `languages`
// best first, as in "de_AT", "de". Of keys that come twice the first one counts.
std::optional<DesktopEntryKeys> ReadDesktopEntryKeys(const QByteArray& text,
                                                     const QStringList& languages);

}  // namespace vardell
