#include "platform/linux/Identify.h"

#include "platform/linux/ExecLine.h"

namespace vardell {
namespace {

QByteArray Unescape(const QByteArray& unit) {
  QByteArray text;
  for (qsizetype i = 0; i < unit.size(); ++i) {
    if (unit[i] == '\\' && i + 3 < unit.size() && unit[i + 1] == 'x') {
      text += QByteArray::fromHex(unit.mid(i + 2, 2));
      i += 3;
    } else {
      text += unit[i];
    }
  }
  return text;
}

// A unit's last part is random or a number; a launcher's name may stand before the id.
const DesktopEntry* EntryOfUnit(const QString& unit, const DesktopEntries& entries) {
  for (qsizetype at = 0; at >= 0 && at < unit.size();) {
    if (const DesktopEntry* entry = entries.ById(unit.mid(at))) return entry;
    const qsizetype dash = unit.indexOf(QLatin1Char('-'), at);
    at = dash < 0 ? -1 : dash + 1;
  }
  return nullptr;
}

const DesktopEntry* ByScriptOfInterpreter(const ProcessFacts& process,
                                          const DesktopEntries& entries) {
  if (!IsInterpreter(process.exe)) return nullptr;
  for (qsizetype i = 1; i < process.arguments.size(); ++i) {
    if (process.arguments[i].startsWith('-')) continue;
    return entries.ByScript(ResolveProgram(process.arguments[i]));
  }
  return nullptr;
}

}  // namespace

QString ApplicationOfCgroup(const QByteArray& cgroup) {
  QByteArray unit = cgroup.mid(cgroup.lastIndexOf('/') + 1);
  if (unit.startsWith("snap.")) {
    const QList<QByteArray> parts = unit.split('.');
    return parts.size() < 3 ? QString() : QString::fromUtf8(parts[1] + '_' + parts[2]);
  }
  if (!unit.startsWith("app-")) return {};
  const bool isScope = unit.endsWith(".scope");
  if (!isScope && !unit.endsWith(".service")) return {};
  unit = unit.mid(4, unit.lastIndexOf('.') - 4);
  // A scope's random part comes after the last dash, a service's after an @.
  const qsizetype end = isScope ? unit.lastIndexOf('-') : unit.lastIndexOf('@');
  return QString::fromUtf8(Unescape(end < 0 ? unit : unit.left(end)));
}

QByteArray SessionOfCgroup(const QByteArray& cgroup) {
  for (const QByteArray& part : cgroup.split('/')) {
    if (part.startsWith("session-") && part.endsWith(".scope")) return part;
  }
  return {};
}

const DesktopEntry* Identify(const ProcessFacts& process, const DesktopEntries& entries) {
  const DesktopEntry* byProgram =
      IsInterpreter(process.exe) ? nullptr : entries.ByProgram(process.exe);
  // The name of a unit can be chosen by whoever starts it; an installed executable cannot.
  if (byProgram && byProgram->rootOwned) return byProgram;
  if (const DesktopEntry* entry = EntryOfUnit(ApplicationOfCgroup(process.cgroup), entries)) {
    return entry;
  }
  if (!process.flatpak.isEmpty()) {
    if (const DesktopEntry* entry = entries.ById(QString::fromUtf8(process.flatpak))) return entry;
  }
  if (const DesktopEntry* entry = ByScriptOfInterpreter(process, entries)) return entry;
  if (byProgram) return byProgram;
  if (process.exe.isEmpty() || IsInterpreter(process.exe)) return nullptr;
  return entries.ByBaseName(process.exe.mid(process.exe.lastIndexOf('/') + 1));
}

}  // namespace vardell
