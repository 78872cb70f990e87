// What the kernel tells of processes. Reads are bounded; a process that goes meanwhile is absent.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QList>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/linux/FileId.h"

namespace vardell {

struct ListedProcess {
  pid_t pid = 0;
  ino_t inode = 0;  // of its folder: another one where the pid was used again
};

// The program that a process runs: each start of one (exec) gives another value, a fork and a
// process that renames itself do not.
struct ProcessImage {
  std::uint64_t startCode = 0, endCode = 0, startStack = 0;  // 0 where they are kept from this user
  FileId file;
  QByteArray name;  // where the rest is kept from this user
  friend bool operator==(const ProcessImage&, const ProcessImage&) = default;
};

struct ProcessStat {
  pid_t pid = 0;
  pid_t parent = 0;
  char state = '?';
  int threads = 0;
  bool isKernel = false;      // a thread of the kernel's
  std::uint64_t started = 0;  // clock ticks since boot
  QByteArray name;            // up to 15 bytes; the process can change it
  std::uint64_t startCode = 0, endCode = 0, startStack = 0;
};

struct ProcessFacts {
  pid_t pid = 0;
  QByteArray name;        // as in ProcessStat
  QByteArray executable;  // real path without " (deleted)"; empty where it may not be read
  FileId executableFile;
  QList<QByteArray> arguments;
  QByteArray script;  // where the executable is an interpreter: the real path of what it runs
  FileId scriptFile;
  QByteArray cgroup;   // path in the unified hierarchy, or in systemd's own
  QByteArray flatpak;  // application id, where it runs in such a sandbox
  QByteArray
      launchEntry;      // the desktop entry that a launcher says it started this very process for
  QByteArray appImage;  // the image that holds the executable, where one is mounted for it
  QList<QByteArray> windowClasses;  // not read here
};

// At most kMaxScannedProcesses.
std::vector<ListedProcess> ListProcesses();

std::optional<ProcessStat> ReadProcessStat(pid_t pid);
// A process whose first thread has ended lives on while it has others.
bool IsLive(const ProcessStat& stat);
ProcessImage ReadProcessImage(const ProcessStat& stat);
ProcessFacts ReadProcessFacts(const ProcessStat& stat);
QByteArray ReadExecutable(pid_t pid);
// The file alone, as in ProcessImage: the cheap part of it.
FileId IdOfExecutable(pid_t pid);
QByteArray ReadCgroup(pid_t pid);

// The user who started it, whatever rights it has got since.
std::optional<uid_t> ReadRealUser(pid_t pid);
std::optional<gid_t> ReadRealGroup(pid_t pid);
// The owner of its folder: a cheap hint. Root also owns the folders of processes that keep their
// memory to themselves.
std::optional<uid_t> ReadFolderOwner(pid_t pid);

// A variable that it was started with; empty where there is none, or where it may not be read.
// Waits for the process's memory, which may be kept from being read.
QByteArray ReadVariable(pid_t pid, const QByteArray& name);

// The name of the application in the text of a sandbox's ".flatpak-info"; empty for none.
QByteArray ParseFlatpakInfo(const QByteArray& text);
// The path in the text of /proc/PID/cgroup.
QByteArray ParseCgroup(const QByteArray& text);

}  // namespace vardell
