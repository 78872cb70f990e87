// Doing things as another user, for tests that run as root.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "tests/support/Waiting.h"

namespace vardell::test {

inline constexpr uid_t kAnna = 4242;
inline constexpr uid_t kBert = 4343;

// Runs `action` on this thread with another effective uid. The raw system call changes the thread
// alone; sockets that it makes and connections that it opens are that user's.
inline void AsUser(uid_t uid, const std::function<void()>& action) {
  syscall(SYS_setresuid, -1, uid, -1);
  action();
  syscall(SYS_setresuid, -1, 0, -1);
}

// A process that waits until it is killed; ended and waited for with the object.
class Sleeper {
 public:
  // `prepare` runs in the child first: changing the user, leading a session.
  explicit Sleeper(const std::function<void()>& prepare = [] {}) {
    int ready[2];
    if (pipe(ready) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      prepare();
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // a change of the user clears it
      (void)!write(ready[1], "r", 1);
      for (;;) pause();
    }
    char byte = 0;
    close(ready[1]);
    (void)!read(ready[0], &byte, 1);
    close(ready[0]);
  }
  ~Sleeper() { End(); }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  static std::function<void()> OfUser(uid_t real, uid_t effective) {
    return [=] { (void)!setresuid(real, effective, effective); };
  }
  static std::function<void()> OfUser(uid_t uid) { return OfUser(uid, uid); }

  pid_t Pid() const { return pid_; }

  // Whether it has not been killed. Deaths are noticed at once: the kernel marks it before kill
  // returns, but the exit itself may take a moment, so an expected death waits for it.
  bool IsAlive() const {
    siginfo_t info{};
    return pid_ > 0 &&
           waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
  }
  bool DiesOfKill() const {
    siginfo_t info{};
    const auto hasEnded = [&] {
      return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
             info.si_pid != 0;
    };
    return WaitUntil(hasEnded) && info.si_code == CLD_KILLED && info.si_status == SIGKILL;
  }

  void End() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }

 private:
  pid_t pid_ = 0;
};

}  // namespace vardell::test
