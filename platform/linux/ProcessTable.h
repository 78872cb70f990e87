// What the kernel tells of processes. Reads are bounded; a process that goes meanwhile is absent.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QList>
#include <cstdint>
#include <optional>
#include <vector>

namespace vardell {

struct ProcessFacts {
  pid_t pid = 0;
  pid_t parent = 0;
  uid_t user = 0;             // effective
  char state = '?';           // 'Z': a zombie
  std::uint64_t started = 0;  // clock ticks since boot
  QByteArray exe;             // resolved path, without " (deleted)"; empty where it may not be read
  QList<QByteArray> arguments;
  QByteArray cgroup;   // path in the unified hierarchy, or in systemd's own
  QByteArray flatpak;  // application id, where it runs in such a sandbox
};

std::vector<pid_t> ListProcesses();

// State, parent and start only: the cheap part of ReadProcess.
std::optional<ProcessFacts> ReadProcessStat(pid_t pid);
std::optional<ProcessFacts> ReadProcess(pid_t pid);
QByteArray ReadExecutable(pid_t pid);

}  // namespace vardell
