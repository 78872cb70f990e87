// Alerts and full-screen messages, shown one at a time, in order, from the top level of the event
// loop: whoever queues one goes on at once, and no modal loop runs inside a tick, an event handler
// or a request. Main thread only.
#pragma once

#include <QObject>
#include <deque>
#include <functional>
#include <memory>

#include "limits/WatchedApps.h"

namespace vardell {

struct QueuedAlert {
  WatchedAppPtr entry;         // null: about no application
  bool replaceable = true;     // a later alert of the entry takes its place while it was not shown
  bool outlivesEntry = false;  // stays when the entry goes (DropAlertsOf)
  std::function<void()> show;       // modal; returns when dismissed
  std::function<void()> dismissed;  // called after show() returned, or when dropped unseen; may be empty
};

class AlertQueue : public QObject {
 public:
  explicit AlertQueue(QObject* parent = nullptr);

  void Enqueue(QueuedAlert alert);

  // Ahead of everything queued, and over an alert that stands now.
  void EnqueueLock(std::function<void()> show);

  // The entry has left the table: its unseen alerts are dropped, except those that outlive it.
  void DropAlertsOf(const WatchedApp& entry);

  // Nothing is shown while the session is switched away; what waits is shown when it is back.
  void SetSessionActive(bool active);

  bool IsIdle() const;  // nothing waits and nothing is up

 private:
  void Schedule();
  void ShowNext();

  std::deque<QueuedAlert> waiting_;
  std::deque<std::function<void()>> locks_;
  bool scheduled_ = false;
  bool sessionActive_ = true;
  int shown_ = 0;      // modal loops of ours on the stack
  bool lockUp_ = false;
};

}  // namespace vardell
