#include "ui/AlertQueue.h"

#include <QTimer>
#include <algorithm>
#include <utility>

namespace vardell {

AlertQueue::AlertQueue(QObject* parent) : QObject(parent) {}

AlertQueue::Waiting* AlertQueue::FindReplaceable(const WatchedAppPtr& entry) {
  const auto it = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& waiting) {
    return entry && waiting.entry == entry && waiting.replaceable;
  });
  return it == waiting_.end() ? nullptr : &*it;
}

void AlertQueue::Enqueue(QueuedAlert alert) {
  Waiting* place = FindReplaceable(alert.entry);
  if (!place) place = &waiting_.emplace_back();
  place->entry = std::move(alert.entry);
  place->replaceable = alert.replaceable;
  place->outlivesEntry = alert.outlivesEntry;
  place->show = std::move(alert.show);
  if (alert.dismissed) place->dismissed.push_back(std::move(alert.dismissed));
  Schedule();
}

void AlertQueue::EnqueueLock(std::function<void()> show) {
  locks_.push_back(std::move(show));
  Schedule();
}

void AlertQueue::DropAlertsOf(const WatchedApp& entry) {
  std::vector<std::function<void()>> told;
  std::erase_if(waiting_, [&](Waiting& waiting) {
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
  return waiting_.empty() && locks_.empty() && !alertUp_ && !lockUp_;
}

// A timer of its own for each showing: one timer does not fire inside its own modal loop, and a
// lock must be able to come up there.
void AlertQueue::Schedule() {
  if (std::exchange(scheduled_, true)) return;
  QTimer::singleShot(0, this, [this] { ShowNext(); });
}

void AlertQueue::ShowNext() {
  scheduled_ = false;
  if (!sessionActive_ || lockUp_) return;
  if (!locks_.empty())
    ShowLock();
  else if (!alertUp_ && !waiting_.empty())
    ShowAlert();
  else
    return;
  Schedule();
}

void AlertQueue::ShowLock() {
  const std::function<void()> show = std::move(locks_.front());
  locks_.pop_front();
  lockUp_ = true;
  show();
  lockUp_ = false;
}

void AlertQueue::ShowAlert() {
  const Waiting alert = std::move(waiting_.front());
  waiting_.pop_front();
  alertUp_ = true;
  if (alert.show) alert.show();
  alertUp_ = false;
  for (const std::function<void()>& dismissed : alert.dismissed) dismissed();
}

}  // namespace vardell
