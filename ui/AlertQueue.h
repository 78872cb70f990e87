// Alerts and full-screen messages, shown one at a time, in order, from the top level of the event
// loop: whoever queues one goes on at once, and no modal loop runs inside a tick, an event handler
// or a request. Main thread only.
#pragma once

#include <QObject>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

#include "limits/WatchedApps.h"

namespace vardell {

struct QueuedAlert {
  WatchedAppPtr entry;         // null: about no application
  bool replaceable = true;     // a later alert of the entry takes its place while it was not shown
  bool outlivesEntry = false;  // stays when the entry goes (DropAlertsOf)
  std::function<void()> show;  // modal; returns when dismissed
  // Called once, after show() returned or, unseen, after the alert was dropped; where the alert was
  // replaced, when the one in its place has gone. May be empty.
  std::function<void()> dismissed;
};

// `show` and `dismissed` are called from the event loop, never from inside a call of the queue.
class AlertQueue : public QObject {
 public:
  explicit AlertQueue(QObject* parent = nullptr);

  void Enqueue(QueuedAlert alert);

  // Ahead of everything that Enqueue() queued, and over an alert that stands now, but not over
  // another cover. Its entry means nothing.
  void EnqueueCover(QueuedAlert cover);

  // Ahead of everything queued, and over whatever stands now. While a lock waits or is up it serves
  // further requests too.
  void EnqueueLock(std::function<void()> show, std::function<void()> dismissed);

  // The entry has left the table: its unseen alerts are dropped, except those that outlive it.
  void DropAlertsOf(const WatchedApp& entry);

  // Nothing is shown while the session is switched away; what waits is shown when it is back. What
  // stands when it is switched away goes on standing.
  void SetSessionActive(bool active);

  bool IsIdle() const;  // nothing waits and nothing is up

 private:
  struct Waiting {
    WatchedAppPtr entry;
    bool replaceable = true;
    bool outlivesEntry = false;
    std::function<void()> show;
    std::vector<std::function<void()>> dismissed;  // of what it replaced, then its own
  };

  // What lies over one another; of each kind one is up at most.
  struct Level {
    std::deque<Waiting> waiting;
    std::optional<Waiting> up;
  };

  void Schedule();
  void ShowNext();
  static void Show(Level& level);
  Waiting* FindReplaceable(const WatchedAppPtr& entry);

  Level alerts_;
  Level covers_;
  Level locks_;
  bool scheduled_ = false;
  bool sessionActive_ = true;
};

}  // namespace vardell
