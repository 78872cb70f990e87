#include "ui/AlertQueue.h"

#include <QTimer>
#include <algorithm>
#include <utility>

namespace vardell {

AlertQueue::AlertQueue(QObject* parent) : QObject(parent) {}

AlertQueue::Waiting* AlertQueue::FindReplaceable(const WatchedAppPtr& entry) {
  const auto it =
      std::find_if(alerts_.waiting.begin(), alerts_.waiting.end(), [&](const Waiting& waiting) {
        return entry && waiting.entry == entry && waiting.replaceable;
      });
  return it == alerts_.waiting.end() ? nullptr : &*it;
}

void AlertQueue::Enqueue(QueuedAlert alert) {
  Waiting* place = FindReplaceable(alert.entry);
  if (!place) place = &alerts_.waiting.emplace_back();
  place->entry = std::move(alert.entry);
  place->replaceable = alert.replaceable;
  place->outlivesEntry = alert.outlivesEntry;
  place->show = std::move(alert.show);
  if (alert.dismissed) place->dismissed.push_back(std::move(alert.dismissed));
  Schedule();
}

void AlertQueue::EnqueueCover(QueuedAlert cover) {
  Waiting& waiting = covers_.waiting.emplace_back();
  waiting.show = std::move(cover.show);
  if (cover.dismissed) waiting.dismissed.push_back(std::move(cover.dismissed));
  Schedule();
}

void AlertQueue::EnqueueLock(std::function<void()> show, std::function<void()> dismissed) {
  if (!locks_.up && locks_.waiting.empty()) locks_.waiting.emplace_back().show = std::move(show);
  Waiting& lock = locks_.up ? *locks_.up : locks_.waiting.front();
  if (dismissed) lock.dismissed.push_back(std::move(dismissed));
  Schedule();
}

void AlertQueue::DropAlertsOf(const WatchedApp& entry) {
  std::vector<std::function<void()>> told;
  std::erase_if(alerts_.waiting, [&](Waiting& waiting) {
    if (waiting.entry.get() != &entry || waiting.outlivesEntry) return false;
    std::move(waiting.dismissed.begin(), waiting.dismissed.end(), std::back_inserter(told));
    return true;
  });
  if (told.empty()) return;
  QTimer::singleShot(0, this, [told = std::move(told)] {
    for (const std::function<void()>& dismissed : told) dismissed();
  });
}

void AlertQueue::SetSessionActive(bool active) {
  sessionActive_ = active;
  Schedule();
}

bool AlertQueue::IsIdle() const {
  const auto isIdle = [](const Level& level) { return level.waiting.empty() && !level.up; };
  return isIdle(alerts_) && isIdle(covers_) && isIdle(locks_);
}

// A timer of its own for each showing: one timer does not fire inside its own modal loop, and a
// cover must be able to come up there.
void AlertQueue::Schedule() {
  if (std::exchange(scheduled_, true)) return;
  QTimer::singleShot(0, this, [this] { ShowNext(); });
}

void AlertQueue::ShowNext() {
  scheduled_ = false;
  if (!sessionActive_) return;
  for (Level* level : {&locks_, &covers_, &alerts_}) {
    if (level->up) return;
    if (level->waiting.empty()) continue;
    Show(*level);
    return Schedule();
  }
}

void AlertQueue::Show(Level& level) {
  level.up = std::move(level.waiting.front());
  level.waiting.pop_front();
  if (level.up->show) level.up->show();
  const Waiting shown = std::move(*level.up);
  level.up.reset();
  for (const std::function<void()>& dismissed : shown.dismissed) dismissed();
}

}  // namespace vardell
