#include "platform/linux/ApplicationScan.h"

#include <unistd.h>

#include <QFile>
#include <algorithm>
#include <utility>

#include "Common Sources/Caps.h"
#include "Common Sources/TestHooks.h"
#include "platform/linux/ApplicationInfos.h"
#include "platform/linux/Interpreters.h"
#include "platform/linux/SessionFiles.h"

namespace vardell {
namespace {

constexpr int kSettlingSeconds = 5;

bool IsGraphicalSession(const QByteArray& session) {
  const QByteArray type = SessionValue(session, "TYPE");
  return type == "x11" || type == "wayland";
}

}  // namespace

ApplicationScan::Found ApplicationScan::FoundEntry(const Identity& identity) {
  return {identity.entry->id, identity.entry->path, identity.isWrapper, false};
}

Viewpoint OwnViewpoint() {
  return {SessionOfCgroup(ReadCgroup(getpid())), IdOfFile("/proc/self/exe")};
}

ApplicationScan::ApplicationScan(DesktopEntries entries, Windows windows, Viewpoint viewpoint)
    : entries_(std::move(entries)),
      windows_(std::move(windows)),
      settling_(kSettlingSeconds * SecondLength()),
      viewpoint_(std::move(viewpoint)) {}

std::vector<RunningApplication> ApplicationScan::Look(pid_t leader) {
  entriesChanged_ = entries_.Update();
  ++look_;
  unknown_.clear();
  for (const ListedProcess& listed : ListProcesses()) LookAt(listed);
  // Whatever had an ended one for its parent has another parent now.
  const auto isGone = [this](const auto& item) { return item.second.look != look_; };
  if (std::erase_if(known_, isGone) > 0) ++families_;
  JoinWrappers();
  LookAtWindows();

  std::vector<RunningApplication> found;
  for (auto& [pid, known] : known_) {
    if (known.found.key.isEmpty() || pid == leader || !IsTopmost(known)) continue;
    found.push_back({{pid, known.stat.started}, known.found.key});
  }
  std::sort(found.begin(), found.end(),
            [](const auto& one, const auto& other) { return one.process.pid < other.process.pid; });
  return found;
}

void ApplicationScan::LookAt(const ListedProcess& listed) {
  Known& known = known_[listed.pid];
  const bool isNew = known.inode != listed.inode;
  if (isNew) Begin(known, listed);
  known.look = look_;
  if (known.whose == Whose::Kernel) return;
  if (known.whose == Whose::Others) {
    // A login begins as root's.
    if (!isNew && ReadFolderOwner(listed.pid) != getuid()) return;
    if (ReadRealUser(listed.pid) != getuid()) return;
    known.whose = Whose::Ours;
  }
  LookAtOwn(known);
}

void ApplicationScan::Begin(Known& known, const ListedProcess& listed) {
  known = {};
  known.inode = listed.inode;
  known.firstSeen = std::chrono::steady_clock::now();
  known.stat.pid = listed.pid;
  const std::optional<ProcessStat> stat = ReadProcessStat(listed.pid);
  if (stat && stat->isKernel) known.whose = Whose::Kernel;
}

// Cheap, and true of nearly every process at nearly every look. A file that is kept from this user
// tells nothing.
bool ApplicationScan::IsUnchanged(const Known& known) const {
  return known.isExamined && known.isSettled && !known.isToldByArguments && !entriesChanged_ &&
         known.image.file.IsValid() && IdOfExecutable(known.stat.pid) == known.image.file;
}

void ApplicationScan::LookAtOwn(Known& known) {
  if (IsUnchanged(known)) return;
  const std::optional<ProcessStat> stat = ReadProcessStat(known.stat.pid);
  if (!stat || !IsLive(*stat)) {
    known.look = 0;
    return;
  }
  known.stat = *stat;
  known.family = families_;
  // The table says nothing any more of a process whose first thread has ended: it stays what it
  // was.
  if (stat->state == 'Z' && known.isExamined) return;
  ProcessImage image = ReadProcessImage(*stat);
  const bool isSame = known.isExamined && image == known.image;
  known.image = std::move(image);
  known.isSettled = std::chrono::steady_clock::now() - known.firstSeen > settling_;
  const bool mayBeMoved = !known.isSettled && ReadCgroup(stat->pid) != known.cgroup;
  if (!isSame || entriesChanged_ || mayBeMoved) Examine(known, isSame);
}

void ApplicationScan::Examine(Known& known, bool isSame) {
  const ProcessFacts facts = ReadProcessFacts(known.stat);
  const Found before = std::exchange(known.found, {});
  known.isExamined = true;
  known.cgroup = facts.cgroup;
  known.isToldByArguments = IsInterpreter(facts.executable) ||
                            entries_.ByProgram(facts.executable, facts.executableFile).size() > 1;
  known.subject = facts.script.isEmpty() ? facts.executable : facts.script;
  known.isNone = IsSessionPart(facts, entries_) || known.stat.pid == getpid() ||
                 facts.executableFile == viewpoint_.program || IsElsewhere(facts.cgroup);
  if (known.isNone) return;

  if (const Identity identity = Identify(facts, entries_); identity.entry) {
    known.found = FoundEntry(identity);
  } else if (const DesktopEntry* entry = entries_.ById(before.entryId); entry && before.isWrapper) {
    known.found = FoundEntry({entry, true});
  } else if (before.isBare && isSame) {
    known.found = before;
  } else {
    unknown_.push_back(known.stat.pid);
  }
}

void ApplicationScan::JoinWrappers() {
  for (const pid_t pid : unknown_) {
    const auto at = known_.find(pid);
    if (at == known_.end()) continue;
    if (const Known* parent = Parent(at->second); parent && parent->found.isWrapper) {
      at->second.found = parent->found;
    }
  }
}

bool ApplicationScan::IsElsewhere(const QByteArray& cgroup) const {
  const QByteArray session = SessionOfCgroup(cgroup);
  if (session.isEmpty() || viewpoint_.session.isEmpty() || session == viewpoint_.session) {
    return false;
  }
  return IsGraphicalSession(session);
}

void ApplicationScan::LookAtWindows() {
  if (!windows_.owners) return;
  for (const pid_t pid : windows_.owners()) {
    const auto at = known_.find(pid);
    if (at == known_.end()) continue;
    Known& known = at->second;
    if (known.whose != Whose::Ours || known.isNone || !known.found.key.isEmpty()) continue;
    ProcessFacts facts = ReadProcessFacts(known.stat);
    if (windows_.classes) facts.windowClasses = windows_.classes(pid);
    if (const Identity identity = Identify(facts, entries_); identity.entry) {
      known.found = FoundEntry(identity);
    } else {
      MakeBare(known);
    }
  }
}

// A program without an entry may show its window in a process below its main one.
void ApplicationScan::MakeBare(Known& known) {
  if (known.subject.isEmpty()) return;
  Known* member = &known;
  for (int i = 0; member && i < kMaxAncestors; ++i) {
    if (member->subject == known.subject && member->found.key.isEmpty()) {
      member->found.key = QFile::decodeName(known.subject);
      member->found.isBare = true;
    }
    member = Parent(*member);
  }
}

ApplicationScan::Known* ApplicationScan::Parent(Known& known) {
  if (known.family != families_) {
    known.family = families_;
    const std::optional<ProcessStat> stat = ReadProcessStat(known.stat.pid);
    if (stat && stat->started == known.stat.started) known.stat.parent = stat->parent;
  }
  const auto at = known_.find(known.stat.parent);
  if (at == known_.end() || at->second.stat.started > known.stat.started) return nullptr;
  return at->second.whose == Whose::Ours ? &at->second : nullptr;
}

bool ApplicationScan::IsTopmost(Known& known) {
  Known* above = Parent(known);
  for (int i = 0; above && i < kMaxAncestors; ++i) {
    if (above->found.key == known.found.key) return false;
    above = Parent(*above);
  }
  return true;
}

std::optional<ApplicationInfo> ApplicationScan::Application(
    const ProcessSerialNumber& process) const {
  const auto at = known_.find(process.pid);
  if (at == known_.end() || at->second.found.key.isEmpty()) return std::nullopt;
  const std::optional<ProcessStat> now = ReadProcessStat(process.pid);
  if (!now || now->started != process.started || !IsLive(*now)) return std::nullopt;
  if (at->second.found.isBare) return InfoOfBare(at->second.subject);
  const DesktopEntry* entry = entries_.ById(at->second.found.entryId);
  return entry ? std::optional(InfoOfEntry(entry->id, entry->path, entry->name)) : std::nullopt;
}

}  // namespace vardell
