// What the last word of a half-written command line may become. Pure functions.
//
// Shells put what comes out here into a command line: names that others made up are left out where
// they have a character that a shell or a terminal would take for more than itself.
#pragma once

#include <QString>
#include <QStringList>
#include <functional>

namespace vardell::control {

// Asked only where the word can be one.
struct CompletionSources {
  std::function<QStringList()> users;
  std::function<QStringList(const QString& user)> identifiers;  // of limits and of applications
  std::function<QStringList()> accounts;                        // of this machine
};

// Instead of candidates where the word is the name of a file: the shell knows those best.
inline constexpr char kFilesMarker[] = "<files>";

// `words` without the program's name; the last may be empty. Those that begin with it, in the order
// of the help; a key ends with '='.
QStringList Complete(const QStringList& words, const CompletionSources& sources);

// A name of letters, digits and . _ - + @ : , / and blanks that does not look like an option.
bool IsHarmlessName(const QString& name);

}  // namespace vardell::control
