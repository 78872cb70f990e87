// The command of a desktop entry, as far as it tells which program runs.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <optional>

namespace vardell {

struct ExecLine {
  QByteArray program;           // as written: a path or a name; env and its settings are left out
  QList<QByteArray> arguments;  // without the field codes
};

// Absent where the line names no program. `exec` is the value with its escapes resolved; quoting
// and field codes as freedesktop.org has them.
std::optional<ExecLine> ParseExecLine(const QString& exec);

// The real path of a program, looked for in the system's folders where it is a bare name; empty
// when there is no such file.
QByteArray ResolveProgram(const QByteArray& program);

// True where that program, found in the same way, is a file that can be executed.
bool IsInstalledProgram(const QByteArray& program);

// True for a regular file that begins with "#!".
bool IsScript(const QByteArray& path);

}  // namespace vardell
