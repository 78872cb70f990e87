#include "platform/linux/DesktopEntry.h"

#include "platform/linux/DesktopEntryKeys.h"
#include "platform/linux/ExecLine.h"
#include "platform/linux/Interpreters.h"

namespace vardell {
namespace {

void SetScript(DesktopEntry& entry, const QByteArray& path) {
  entry.script = path;
  entry.scriptFile = IdOfFile(path);
}

// What a running process of this entry will show of itself.
void SetProgram(DesktopEntry& entry, const ExecLine& exec) {
  entry.arguments = exec.arguments;
  if (IsLauncher(exec.program)) return;
  const QByteArray program = ResolveProgram(exec.program);
  if (IsInterpreter(exec.program) || IsInterpreter(program)) {
    const QByteArray script =
        ScriptArgument(exec.program, QList<QByteArray>{exec.program} + exec.arguments);
    SetScript(entry, ResolveProgram(script));
    if (!entry.script.isEmpty()) entry.baseName = BaseName(entry.script);
    return;
  }
  if (IsLauncher(program)) return;
  entry.baseName = BaseName(exec.program);
  entry.program = program;
  entry.programFile = IdOfFile(program);
  if (IsScript(program)) SetScript(entry, program);
}

}  // namespace

std::optional<DesktopEntry> ParseDesktopEntry(const QByteArray& text,
                                              const QStringList& languages) {
  const std::optional<DesktopEntryKeys> keys = ReadDesktopEntryKeys(text, languages);
  if (!keys || keys->isHidden || keys->name.isEmpty()) return std::nullopt;
  if (!keys->tryExec.isEmpty() && ResolveProgram(keys->tryExec.toUtf8()).isEmpty()) {
    return std::nullopt;
  }
  const std::optional<ExecLine> exec = ParseExecLine(keys->exec);
  if (!exec) return std::nullopt;

  DesktopEntry entry;
  entry.name = keys->name;
  entry.isShown = keys->isDisplayed;
  entry.isSessionPart = keys->isSessionPart;
  entry.windowClass = keys->windowClass;
  SetProgram(entry, *exec);
  return entry;
}

}  // namespace vardell
