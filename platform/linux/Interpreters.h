// Programs that run other programs' text, and how to tell which text that is.
#pragma once

#include <QByteArray>
#include <QList>

namespace vardell {

// True for a path or a name whose program is no application by itself: python3.11, sh, java …
bool IsInterpreter(const QByteArray& program);

// An interpreter whose scripts mostly start another program.
bool IsShell(const QByteArray& program);

// Programs that start an application of another name: flatpak, snap …
bool IsLauncher(const QByteArray& program);

// Of a command line whose first word is an interpreter: the word that names the script, after the
// interpreter's own options and their values. Empty where it is given its text otherwise.
QByteArray ScriptArgument(const QByteArray& interpreter, const QList<QByteArray>& words);

QByteArray BaseName(const QByteArray& path);

}  // namespace vardell
