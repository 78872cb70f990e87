// Waiting for something to become true, with a deadline instead of a guess.
#pragma once

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <chrono>
#include <functional>

namespace vardell::test {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

inline constexpr std::chrono::milliseconds kPatience = 20s;

struct CoreApplication {
  int argc = 1;
  char name[5] = "test";
  char* argv[2] = {name, nullptr};
  QCoreApplication application{argc, argv};
};

// True as soon as `condition` holds; false at the deadline. Looks again every 10 ms and lets Qt's
// event loop run meanwhile where there is one.
inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds patience = kPatience) {
  const auto deadline = Clock::now() + patience;
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    if (QCoreApplication::instance()) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    poll(nullptr, 0, 10);
  }
  return true;
}

// True when the process has ended (also as a zombie) before the deadline.
inline bool WaitForExit(int pidfd, std::chrono::milliseconds patience = kPatience) {
  pollfd wait{pidfd, POLLIN, 0};
  return poll(&wait, 1, static_cast<int>(patience.count())) == 1;
}

inline int OpenPidfd(pid_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

}  // namespace vardell::test
