// The timer behind the enforcement tick. It counts seconds by a monotonic clock: a timer that fires
// late (a blocked request, a stopped process, a busy machine) calls its action once for each whole
// second that passed, letting the event loop run in between when there are many. Nothing is counted
// while there is a reason to stand still; the first tick afterwards comes one second after the last
// such reason has ended. What passed uncounted before one is not lost: pieces of seconds add up
// over all of them, and whole seconds are counted when it has ended. Main thread only.
#pragma once

#include <QTimer>
#include <chrono>
#include <functional>

namespace vardell {

class TickTimer {
 public:
  using Clock = std::function<std::chrono::milliseconds()>;

  // `monotonic` must not count a suspended machine. `second` is the interval.
  TickTimer(Clock monotonic, std::chrono::milliseconds second);

  // The first call of `action` comes one second from now. It runs from the event loop, never
  // nested.
  void Start(std::function<void()> action);

  // The two reasons to stand still: the session is not in front, and full-screen messages, which
  // may lie over one another and each need their EndMessage.
  void SetSessionAway(bool away);
  void BeginMessage();
  void EndMessage();
  bool IsSuspended() const { return sessionAway_ || messages_ > 0; }

 private:
  void Fire();
  void Stop();
  void Restart();
  void ScheduleNext();

  Clock monotonic_;
  std::chrono::milliseconds second_;
  std::function<void()> action_;
  std::chrono::milliseconds counted_{0};  // the clock at the last second that was counted
  std::chrono::milliseconds owed_{0};     // what passed uncounted before it came to stand still
  bool sessionAway_ = false;
  int messages_ = 0;
  QTimer timer_;
};

// CLOCK_MONOTONIC.
std::chrono::milliseconds MonotonicNow();

}  // namespace vardell
