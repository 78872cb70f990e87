#include "platform/linux/Identify.h"

#include <QFile>
#include <algorithm>

#include "platform/linux/Interpreters.h"

namespace vardell {
namespace {

using List = DesktopEntries::List;

constexpr qsizetype kUuidLength = 36;
constexpr qsizetype kMaxNameLength = 15;  // of a process

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

const DesktopEntry* EntryOfSnap(const QByteArray& unit, const DesktopEntries& entries) {
  const QList<QByteArray> parts = unit.split('.');
  if (parts.size() < 4) return nullptr;
  QByteArray application = parts[2];
  const qsizetype dash = application.size() - kUuidLength - 1;
  if (dash > 0 && application[dash] == '-') application.truncate(dash);
  return entries.ById(QString::fromUtf8(parts[1] + '_' + application));
}

// A launcher's name may stand before the id, and some launchers escape no dashes.
const DesktopEntry* EntryOfName(const QByteArray& name, const DesktopEntries& entries) {
  for (qsizetype at = 0; at < name.size();) {
    const QString id = QString::fromUtf8(Unescape(name.mid(at)));
    if (const DesktopEntry* entry = entries.ById(id)) return entry;
    const qsizetype dash = name.indexOf('-', at);
    if (dash < 0) return nullptr;
    at = dash + 1;
  }
  return nullptr;
}

const DesktopEntry* EntryOfUnit(const QByteArray& unit, const DesktopEntries& entries) {
  if (unit.startsWith("snap.")) return EntryOfSnap(unit, entries);
  const bool isScope = unit.endsWith(".scope");
  if (!unit.startsWith("app-") || (!isScope && !unit.endsWith(".service"))) return nullptr;
  const QByteArray name = unit.mid(4, unit.lastIndexOf('.') - 4);
  const qsizetype end = isScope ? name.lastIndexOf('-') : name.indexOf('@');
  return EntryOfName(end < 0 ? name : name.left(end), entries);
}

bool HasArguments(const ProcessFacts& process, const DesktopEntry& entry) {
  return std::all_of(entry.arguments.begin(), entry.arguments.end(),
                     [&](const QByteArray& word) { return process.arguments.contains(word); });
}

// Several entries may start one program, with other arguments each.
int Fit(const ProcessFacts& process, const DesktopEntry& entry) {
  const int arguments =
      HasArguments(process, entry) ? static_cast<int>(entry.arguments.size()) : -1;
  return 4 * arguments + (entry.isTrusted ? 2 : 0) + (entry.isShown ? 1 : 0);
}

const DesktopEntry* Best(const List& candidates, const ProcessFacts& process, bool onlyTrusted) {
  const DesktopEntry* best = nullptr;
  for (const DesktopEntry* entry : candidates) {
    if (onlyTrusted && !entry->isTrusted) continue;
    if (best && best->isTrusted && !entry->isTrusted) continue;
    if (!best || Fit(process, *entry) > Fit(process, *best)) best = entry;
  }
  return best;
}

// The executable of a program with rights of its own is kept from the user, its name is not.
List ByHiddenProgram(const ProcessFacts& process, const DesktopEntries& entries) {
  if (!process.executable.isEmpty() || process.name.isEmpty()) return {};
  List candidates = entries.ByBaseName(process.name);
  if (process.name.size() == kMaxNameLength && !process.arguments.isEmpty()) {
    const QByteArray whole = BaseName(process.arguments.constFirst());
    if (whole.startsWith(process.name)) candidates += entries.ByBaseName(whole);
  }
  return candidates;
}

List ByProgram(const ProcessFacts& process, const DesktopEntries& entries) {
  if (process.executable.isEmpty()) return ByHiddenProgram(process, entries);
  const bool hasNameOfItsOwn = !IsInterpreter(process.executable);
  return entries.ByProgram(hasNameOfItsOwn ? process.executable : QByteArray(),
                           process.executableFile);
}

List ByScript(const ProcessFacts& process, const DesktopEntries& entries) {
  if (process.script.isEmpty()) return {};
  return entries.ByScript(process.script, process.scriptFile);
}

List ByBaseName(const ProcessFacts& process, const DesktopEntries& entries) {
  if (!process.script.isEmpty()) return entries.ByBaseName(BaseName(process.script));
  if (process.executable.isEmpty() || IsInterpreter(process.executable)) return {};
  return entries.ByBaseName(BaseName(process.executable));
}

List ByWindowClass(const ProcessFacts& process, const DesktopEntries& entries) {
  for (const QByteArray& windowClass : process.windowClasses) {
    const List found = entries.ByWindowClass(QString::fromUtf8(windowClass));
    if (!found.isEmpty()) return found;
  }
  return {};
}

const DesktopEntry* BestByOrigin(const ProcessFacts& process, const DesktopEntries& entries) {
  if (const DesktopEntry* entry = EntryOfCgroup(process.cgroup, entries)) return entry;
  if (process.flatpak.isEmpty()) return nullptr;
  return entries.ById(QString::fromUtf8(process.flatpak));
}

List ByAppImage(const ProcessFacts& process, const DesktopEntries& entries) {
  if (process.appImage.isEmpty()) return {};
  return entries.ByProgram(process.appImage, IdOfFile(process.appImage));
}

const DesktopEntry* BestByHints(const ProcessFacts& process, const DesktopEntries& entries) {
  if (const DesktopEntry* entry = Best(ByAppImage(process, entries), process, false)) return entry;
  if (const DesktopEntry* entry = Best(ByBaseName(process, entries), process, false)) return entry;
  if (!process.launchEntry.isEmpty()) {
    const DesktopEntry* entry = entries.ByPath(QFile::decodeName(process.launchEntry));
    if (entry) return entry;
  }
  return Best(ByWindowClass(process, entries), process, false);
}

}  // namespace

const DesktopEntry* EntryOfCgroup(const QByteArray& cgroup, const DesktopEntries& entries) {
  const QList<QByteArray> units = cgroup.split('/');
  for (auto unit = units.rbegin(); unit != units.rend(); ++unit) {
    if (const DesktopEntry* entry = EntryOfUnit(*unit, entries)) return entry;
  }
  return nullptr;
}

QByteArray SessionOfCgroup(const QByteArray& cgroup) {
  // Below its own service a user can make groups of any name.
  const QList<QByteArray> parts = cgroup.split('/');
  if (parts.size() < 4 || parts[1] != "user.slice" || !parts[2].startsWith("user-")) return {};
  const QByteArray& unit = parts[3];
  if (!unit.startsWith("session-") || !unit.endsWith(".scope")) return {};
  return unit.mid(8, unit.size() - 14);
}

bool IsSessionPart(const ProcessFacts& process, const DesktopEntries& entries) {
  if (!process.script.isEmpty()) return entries.IsSessionPart(process.script, process.scriptFile);
  return entries.IsSessionPart(process.executable, process.executableFile);
}

Identity Identify(const ProcessFacts& process, const DesktopEntries& entries) {
  if (IsSessionPart(process, entries)) return {};
  const List byScript = ByScript(process, entries);
  const bool inShell = IsShell(process.executable);
  const List byProgram = ByProgram(process, entries);
  if (const DesktopEntry* entry = Best(byScript, process, true)) return {entry, inShell};
  if (const DesktopEntry* entry = Best(byProgram, process, true)) return {entry, false};
  if (const DesktopEntry* entry = BestByOrigin(process, entries)) return {entry, false};
  if (const DesktopEntry* entry = Best(byScript, process, false)) return {entry, inShell};
  if (const DesktopEntry* entry = Best(byProgram, process, false)) return {entry, false};
  const DesktopEntry* entry = BestByHints(process, entries);
  return {entry, entry && inShell && !process.script.isEmpty()};
}

}  // namespace vardell
