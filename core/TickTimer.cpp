#include "core/TickTimer.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace vardell {

using std::chrono::milliseconds;

namespace {
// Of one turn of the event loop.
constexpr milliseconds kLongestCatchUp{1000};
}  // namespace

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

void TickTimer::SetSessionAway(bool away) {
  if (away == sessionAway_) return;
  if (away) Stop();
  sessionAway_ = away;
  Restart();
}

void TickTimer::BeginMessage() {
  Stop();
  ++messages_;
}

void TickTimer::EndMessage() {
  if (messages_ == 0) return;
  --messages_;
  Restart();
}

void TickTimer::Stop() {
  if (!action_ || IsSuspended()) return;
  owed_ += monotonic_() - counted_;
  timer_.stop();
}

void TickTimer::Restart() {
  if (!action_ || IsSuspended()) return;
  const milliseconds due = owed_ / second_ * second_;
  owed_ -= due;
  counted_ = monotonic_() - due;
  timer_.start(due > milliseconds(0) ? milliseconds(0) : second_);
}

void TickTimer::ScheduleNext() {
  timer_.start(std::max(milliseconds(0), counted_ + second_ - monotonic_()));
}

void TickTimer::Fire() {
  const milliseconds began = monotonic_();
  while (!IsSuspended() && monotonic_() - counted_ >= second_) {
    counted_ += second_;
    action_();
    if (monotonic_() - began > kLongestCatchUp) break;
  }
  if (!IsSuspended()) ScheduleNext();
}

}  // namespace vardell
