#include "platform/linux/ProcessTable.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace vardell {
namespace {

constexpr qsizetype kMaxFileBytes = 16384;

QByteArray ProcPath(pid_t pid, const char* name) {
  return "/proc/" + QByteArray::number(pid) + "/" + name;
}

QByteArray ReadBounded(const QByteArray& path) {
  const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return {};
  QByteArray bytes(kMaxFileBytes, Qt::Uninitialized);
  qsizetype size = 0;
  while (size < kMaxFileBytes) {
    const ssize_t got =
        read(fd, bytes.data() + size, static_cast<std::size_t>(kMaxFileBytes - size));
    if (got <= 0) break;
    size += got;
  }
  close(fd);
  bytes.truncate(size);
  return bytes;
}

// The name in brackets may hold blanks and brackets: what counts comes after the last one.
bool ParseStat(const QByteArray& stat, ProcessFacts* facts) {
  const qsizetype nameEnd = stat.lastIndexOf(')');
  if (nameEnd < 0) return false;
  const QList<QByteArray> fields = stat.mid(nameEnd + 2).split(' ');
  if (fields.size() < 20) return false;
  facts->state = fields[0].isEmpty() ? '?' : fields[0][0];
  facts->parent = fields[1].toInt();
  facts->started = fields[19].toULongLong();
  return true;
}

QByteArray ParseCgroup(const QByteArray& text) {
  for (const QByteArray& line : text.split('\n')) {
    if (line.startsWith("0::")) return line.mid(3);
    const qsizetype named = line.indexOf(":name=systemd:");
    if (named > 0) return line.mid(named + 14);
  }
  return {};
}

QByteArray ParseFlatpak(const QByteArray& text) {
  for (const QByteArray& line : text.split('\n')) {
    if (line.startsWith("name=")) return line.mid(5).trimmed();
  }
  return {};
}

}  // namespace

std::vector<pid_t> ListProcesses() {
  std::vector<pid_t> pids;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc"), closedir);
  if (!directory) return pids;
  while (const dirent* entry = readdir(directory.get())) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (end != entry->d_name && *end == '\0' && pid > 0) pids.push_back(static_cast<pid_t>(pid));
  }
  return pids;
}

QByteArray ReadExecutable(pid_t pid) {
  char target[PATH_MAX];
  const ssize_t length = readlink(ProcPath(pid, "exe").constData(), target, sizeof target);
  if (length <= 0) return {};
  QByteArray path(target, length);
  if (path.endsWith(" (deleted)")) path.chop(10);
  return path;
}

std::optional<ProcessFacts> ReadProcessStat(pid_t pid) {
  ProcessFacts facts;
  facts.pid = pid;
  if (!ParseStat(ReadBounded(ProcPath(pid, "stat")), &facts)) return std::nullopt;
  return facts;
}

std::optional<ProcessFacts> ReadProcess(pid_t pid) {
  std::optional<ProcessFacts> facts = ReadProcessStat(pid);
  struct stat owner {};
  if (!facts || stat(ProcPath(pid, "").constData(), &owner) != 0) return std::nullopt;
  facts->user = owner.st_uid;
  facts->exe = ReadExecutable(pid);
  QByteArray arguments = ReadBounded(ProcPath(pid, "cmdline"));
  if (arguments.endsWith('\0')) arguments.chop(1);
  if (!arguments.isEmpty()) facts->arguments = arguments.split('\0');
  facts->cgroup = ParseCgroup(ReadBounded(ProcPath(pid, "cgroup")));
  facts->flatpak = ParseFlatpak(ReadBounded(ProcPath(pid, "root/.flatpak-info")));
  return facts;
}

}  // namespace vardell
