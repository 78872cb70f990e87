#include "core/TickTimer.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace vardell {

using std::chrono::milliseconds;

milliseconds MonotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return milliseconds(std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000);
}

TickTimer::TickTimer(Clock monotonic, milliseconds second)
    : monotonic_(std::move(monotonic)), second_(second) {
  timer_.setSingleShot(true);
  timer_.setTimerType(Qt::PreciseTimer);
  QObject::connect(&timer_, &QTimer::timeout, &timer_, [this] { Fire(); });
}

void TickTimer::Start(std::function<void()> action) {
  action_ = std::move(action);
  Restart();
}

void TickTimer::StopOrRestart(bool wasSuspended) {
  if (IsSuspended()) {
    timer_.stop();
  } else if (wasSuspended) {
    Restart();
  }
}

void TickTimer::SetSessionAway(bool away) {
  const bool was = IsSuspended();
  sessionAway_ = away;
  StopOrRestart(was);
}

void TickTimer::BeginMessage() {
  ++messages_;
  StopOrRestart(true);
}

void TickTimer::EndMessage() {
  if (messages_ == 0) return;
  --messages_;
  StopOrRestart(true);
}

void TickTimer::Restart() {
  if (!action_ || IsSuspended()) return;
  counted_ = monotonic_();
  ScheduleNext();
}

void TickTimer::ScheduleNext() {
  timer_.start(std::max(milliseconds(0), counted_ + second_ - monotonic_()));
}

void TickTimer::Fire() {
  const auto due = (monotonic_() - counted_) / second_;
  for (std::int64_t i = 0; i < due && !IsSuspended(); ++i) {
    counted_ += second_;
    action_();
  }
  if (!IsSuspended()) ScheduleNext();
}

}  // namespace vardell
