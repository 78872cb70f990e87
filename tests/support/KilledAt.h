// A program that is killed, as by a power cut, just before the n-th time that it would change a
// file's contents or name, or say something on a socket.
#pragma once

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace vardell::test {

inline bool IsChange(const __ptrace_syscall_info& call) {
  switch (call.entry.nr) {
    case SYS_write:
      return call.entry.args[0] > 2;
    case SYS_rename:
    case SYS_renameat:
    case SYS_renameat2:
    case SYS_unlink:
    case SYS_unlinkat:
    case SYS_ftruncate:
    case SYS_sendto:
      return true;
    default:
      return false;
  }
}

// False where it ended by itself before; -1 as `status` then means that it could not be run.
inline bool RunKilledAt(int n, const std::vector<std::string>& command, int* status = nullptr) {
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int nothing = open("/dev/null", O_RDWR);
    for (const int fd : {0, 1, 2}) dup2(nothing, fd);
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // which no traced process can
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(words[0], words.data());
    _exit(127);
  }
  int state = 0;
  waitpid(pid, &state, 0);  // stops at the exec
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  long signal = 0;
  for (int changes = 0; !WIFEXITED(state) && !WIFSIGNALED(state);) {
    ptrace(PTRACE_SYSCALL, pid, nullptr, signal);
    if (waitpid(pid, &state, 0) != pid) break;
    const bool isCall = WIFSTOPPED(state) && WSTOPSIG(state) == (SIGTRAP | 0x80);
    signal = WIFSTOPPED(state) && !isCall ? WSTOPSIG(state) : 0;
    __ptrace_syscall_info call{};
    if (!isCall || ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof call, &call) <= 0) continue;
    if (call.op != PTRACE_SYSCALL_INFO_ENTRY || !IsChange(call) || ++changes < n) continue;
    kill(pid, SIGKILL);
    waitpid(pid, &state, 0);
    return true;
  }
  if (status) *status = WIFEXITED(state) ? WEXITSTATUS(state) : -1;
  return false;
}

}  // namespace vardell::test
