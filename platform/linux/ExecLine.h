// The command of a desktop entry, as far as it tells which program runs.
#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

namespace vardell {

struct ExecLine {
  QByteArray program;        // as written: a path or a name; env and its settings are left out
  QByteArray firstArgument;  // the first that is no option
};

// Absent where the line names no program. Quoting as the desktop entry specification has it.
std::optional<ExecLine> ParseExecLine(const QString& exec);

// The real path of a program, looked for in the system's folders where it is a bare name; empty
// when there is no such file.
QByteArray ResolveProgram(const QByteArray& program);

// True for a file that begins with "#!".
bool IsScript(const QByteArray& path);

}  // namespace vardell
