#include "platform/linux/ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <memory>

#include "Common Sources/Caps.h"
#include "platform/linux/Interpreters.h"

namespace vardell {
namespace {

constexpr int kFirstFieldAfterName = 3;  // as proc(5) counts them
constexpr std::uint64_t kKernelThread = 0x00200000;

QByteArray ProcPath(pid_t pid, const char* name) {
  return "/proc/" + QByteArray::number(pid) + '/' + name;
}

QByteArray ReadBounded(const QByteArray& path, int flags = 0) {
  const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags);
  if (fd < 0) return {};
  QByteArray bytes;
  char part[4096];
  while (bytes.size() < static_cast<qsizetype>(kMaxProcessFileBytes)) {
    const ssize_t got = read(fd, part, sizeof part);
    if (got <= 0) break;
    bytes.append(part, got);
  }
  close(fd);
  return bytes;
}

QByteArray ReadLink(const QByteArray& path) {
  char target[PATH_MAX];
  const ssize_t length = readlink(path.constData(), target, sizeof target);
  return length <= 0 ? QByteArray() : QByteArray(target, length);
}

QByteArray RealFile(const QByteArray& path) {
  char resolved[PATH_MAX];
  struct stat status {};
  if (!realpath(path.constData(), resolved) || stat(resolved, &status) != 0) return {};
  return S_ISREG(status.st_mode) ? QByteArray(resolved) : QByteArray();
}

template <typename Take>
void ListNumbers(const QByteArray& path, const Take& take) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.constData()), closedir);
  if (!folder) return;
  while (const dirent* item = readdir(folder.get())) {
    const QByteArrayView name(item->d_name);
    pid_t number = 0;
    const auto [end, error] = std::from_chars(name.begin(), name.end(), number);
    const bool isNumber = error == std::errc() && end == name.end();
    if (isNumber && !take(ListedProcess{number, item->d_ino})) return;
  }
}

std::uint64_t Number(const QList<QByteArray>& fields, int field) {
  return fields.value(field - kFirstFieldAfterName).toULongLong();
}

// The name in brackets may hold blanks and brackets: what counts comes after the last one.
std::optional<ProcessStat> ParseStat(pid_t pid, const QByteArray& text) {
  const qsizetype nameBegin = text.indexOf('(');
  const qsizetype nameEnd = text.lastIndexOf(')');
  if (nameBegin < 0 || nameEnd < nameBegin) return std::nullopt;
  const QList<QByteArray> fields = text.mid(nameEnd + 2).split(' ');
  if (fields.size() < 26 || fields[0].isEmpty()) return std::nullopt;
  ProcessStat stat;
  stat.pid = pid;
  stat.name = text.mid(nameBegin + 1, nameEnd - nameBegin - 1);
  stat.state = fields[0][0];
  stat.parent = static_cast<pid_t>(Number(fields, 4));
  stat.isKernel = (Number(fields, 9) & kKernelThread) != 0;
  stat.threads = static_cast<int>(Number(fields, 20));
  stat.started = Number(fields, 22);
  stat.startCode = Number(fields, 26);
  stat.endCode = Number(fields, 27);
  stat.startStack = Number(fields, 28);
  return stat;
}

// As the process itself finds it, which may have other files mounted than this one. -1 on failure.
int OpenAsProcess(pid_t pid, const QByteArray& path) {
  if (!path.startsWith('/')) {
    return open((ProcPath(pid, "cwd/") + path).constData(), O_PATH | O_CLOEXEC);
  }
  const int root = open(ProcPath(pid, "root").constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_IN_ROOT;
  const long fd = syscall(SYS_openat2, root, path.constData(), &how, sizeof how);
  if (root >= 0) close(root);
  return static_cast<int>(fd);
}

void ReadScript(ProcessFacts& facts, pid_t thread) {
  if (!IsInterpreter(facts.executable)) return;
  const QByteArray word = ScriptArgument(facts.executable, facts.arguments);
  if (word.isEmpty()) return;
  const int fd = OpenAsProcess(thread, word);
  struct stat status {};
  if (fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
    const QByteArray opened = "/proc/self/fd/" + QByteArray::number(fd);
    facts.script = ReadLink(opened);
    facts.scriptFile = IdOfFile(opened);
  }
  if (fd >= 0) close(fd);
}

// Another mount namespace is the mark of a sandbox; without one the file would be the machine's.
QByteArray ReadFlatpak(pid_t pid) {
  const QByteArray own = ReadLink("/proc/self/ns/mnt");
  const QByteArray other = ReadLink(ProcPath(pid, "ns/mnt"));
  if (other.isEmpty() || other == own) return {};
  return ParseFlatpakInfo(ReadBounded(ProcPath(pid, "root/.flatpak-info"), O_NOFOLLOW));
}

// Variables are inherited by everything that the application starts. A launcher's word is good only
// where it names this very process, an image's only for what runs out of one.
void ReadEnvironment(ProcessFacts& facts, pid_t thread) {
  QByteArray entry;
  QByteArray launched;
  QByteArray image;
  for (const QByteArray& variable : ReadBounded(ProcPath(thread, "environ")).split('\0')) {
    if (variable.startsWith("GIO_LAUNCHED_DESKTOP_FILE=")) entry = variable.mid(26);
    if (variable.startsWith("GIO_LAUNCHED_DESKTOP_FILE_PID=")) launched = variable.mid(30);
    if (variable.startsWith("APPIMAGE=")) image = variable.mid(9);
  }
  if (launched == QByteArray::number(facts.pid)) facts.launchEntry = entry;
  if (facts.executable.startsWith("/tmp/.mount_")) facts.appImage = RealFile(image);
}

// The first thread, or where that one has ended and tells nothing any more, another one.
pid_t TellingThread(const ProcessStat& stat) {
  if (stat.state != 'Z') return stat.pid;
  pid_t thread = stat.pid;
  ListNumbers(ProcPath(stat.pid, "task"), [&](const ListedProcess& listed) {
    thread = listed.pid;
    return thread == stat.pid;
  });
  return thread;
}

QList<QByteArray> ReadArguments(pid_t pid) {
  QByteArray text = ReadBounded(ProcPath(pid, "cmdline"));
  if (text.endsWith('\0')) text.chop(1);
  return text.isEmpty() ? QList<QByteArray>() : text.split('\0');
}

// The first number of a line.
std::optional<std::uint32_t> ReadStatusNumber(pid_t pid, const QByteArray& line) {
  const QByteArray text = ReadBounded(ProcPath(pid, "status"));
  const qsizetype at = text.indexOf(line);
  if (at < 0) return std::nullopt;
  const qsizetype begin = at + line.size();
  bool isNumber = false;
  const std::uint32_t number = text.mid(begin, text.indexOf('\t', begin) - begin).toUInt(&isNumber);
  return isNumber ? std::optional(number) : std::nullopt;
}

}  // namespace

std::vector<ListedProcess> ListProcesses() {
  std::vector<ListedProcess> processes;
  ListNumbers("/proc", [&processes](const ListedProcess& listed) {
    processes.push_back(listed);
    return processes.size() < kMaxScannedProcesses;
  });
  return processes;
}

std::optional<ProcessStat> ReadProcessStat(pid_t pid) {
  return ParseStat(pid, ReadBounded(ProcPath(pid, "stat")));
}

bool IsLive(const ProcessStat& stat) {
  return (stat.state != 'Z' && stat.state != 'X') || stat.threads > 1;
}

QByteArray ReadExecutable(pid_t pid) {
  QByteArray path = ReadLink(ProcPath(pid, "exe"));
  if (path.endsWith(" (deleted)")) path.chop(10);
  return path;
}

FileId IdOfExecutable(pid_t pid) {
  return IdOfFile(ProcPath(pid, "exe"));
}

QByteArray ReadCgroup(pid_t pid) {
  return ParseCgroup(ReadBounded(ProcPath(pid, "cgroup")));
}

ProcessImage ReadProcessImage(const ProcessStat& stat) {
  ProcessImage image{stat.startCode, stat.endCode, stat.startStack, IdOfExecutable(stat.pid), {}};
  if (!image.file.IsValid()) image.name = stat.name;
  return image;
}

ProcessFacts ReadProcessFacts(const ProcessStat& stat) {
  const pid_t thread = TellingThread(stat);
  ProcessFacts facts;
  facts.pid = stat.pid;
  facts.name = stat.name;
  facts.executable = ReadExecutable(thread);
  facts.executableFile = IdOfExecutable(thread);
  facts.arguments = ReadArguments(thread);
  ReadScript(facts, thread);
  facts.cgroup = ReadCgroup(thread);
  facts.flatpak = ReadFlatpak(thread);
  ReadEnvironment(facts, thread);
  return facts;
}

std::optional<uid_t> ReadRealUser(pid_t pid) {
  return ReadStatusNumber(pid, "\nUid:\t");
}

std::optional<gid_t> ReadRealGroup(pid_t pid) {
  return ReadStatusNumber(pid, "\nGid:\t");
}

QByteArray ReadVariable(pid_t pid, const QByteArray& name) {
  for (const QByteArray& variable : ReadBounded(ProcPath(pid, "environ")).split('\0')) {
    if (variable.startsWith(name + '=')) return variable.mid(name.size() + 1);
  }
  return {};
}

std::optional<uid_t> ReadFolderOwner(pid_t pid) {
  struct stat status {};
  if (stat(ProcPath(pid, "").constData(), &status) != 0) return std::nullopt;
  return status.st_uid;
}

QByteArray ParseFlatpakInfo(const QByteArray& text) {
  bool inside = false;
  for (const QByteArray& line : text.split('\n')) {
    if (line.startsWith('[')) inside = line.trimmed() == "[Application]";
    if (inside && line.startsWith("name=")) return line.mid(5).trimmed();
  }
  return {};
}

QByteArray ParseCgroup(const QByteArray& text) {
  QByteArray unified;
  for (const QByteArray& line : text.split('\n')) {
    const qsizetype named = line.indexOf(":name=systemd:");
    if (named > 0) return line.mid(named + 14);
    if (line.startsWith("0::")) unified = line.mid(3);
  }
  return unified;
}

}  // namespace vardell
