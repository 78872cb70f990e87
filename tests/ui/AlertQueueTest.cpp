#include "ui/AlertQueue.h"

#include <gtest/gtest.h>

#include <map>

#include "tests/support/QtEnvironment.h"

namespace vardell {
namespace {

// Alerts "a", "b" … and locks "L", "M" …: "a+" is a coming up, "a-" its going, "a!" the telling.
class AlertQueueTest : public testing::Test {
 protected:
  // Long enough for everything that is due now, also in a nested loop.
  static void Settle() {
    for (int i = 0; i < 20; ++i) QCoreApplication::processEvents();
  }
  void ExpectEvents(const char* expected) {
    Settle();
    EXPECT_EQ(events.join(u' ').toStdString(), expected);
  }
  std::function<void()> Show(const QString& name) {
    return [this, name] {
      events << name + u'+';
      if (whileUp.count(name)) whileUp[name]();
      Settle();
      events << name + u'-';
    };
  }
  std::function<void()> Tell(const QString& name) {
    return [this, name] { events << name + u'!'; };
  }
  QueuedAlert Alert(const QString& name, WatchedAppPtr entry = nullptr) {
    QueuedAlert alert;
    alert.entry = std::move(entry);
    alert.show = Show(name);
    alert.dismissed = Tell(name);
    return alert;
  }
  QueuedAlert Spent(const QString& name, WatchedAppPtr entry) {
    QueuedAlert alert = Alert(name, std::move(entry));
    alert.replaceable = false;
    alert.outlivesEntry = true;
    return alert;
  }

  QStringList events;
  std::map<QString, std::function<void()>> whileUp;
  WatchedAppPtr game = std::make_shared<WatchedApp>();
  WatchedAppPtr chat = std::make_shared<WatchedApp>();
  AlertQueue queue;
};

TEST_F(AlertQueueTest, ShowsOneAfterTheOtherAndNeverFromInsideACall) {
  queue.Enqueue(Alert("a"));
  queue.Enqueue(Alert("b"));
  EXPECT_EQ(events, QStringList());
  EXPECT_FALSE(queue.IsIdle());
  ExpectEvents("a+ a- a! b+ b- b!");
  EXPECT_TRUE(queue.IsIdle());
}

TEST_F(AlertQueueTest, WhatIsQueuedUnderAnAlertWaitsForItsEndAlsoOfItsEntry) {
  whileUp["a"] = [&] {
    EXPECT_FALSE(queue.IsIdle());
    queue.Enqueue(Alert("b", game));
  };
  queue.Enqueue(Alert("a", game));
  ExpectEvents("a+ a- a! b+ b- b!");
}

TEST_F(AlertQueueTest, ADismissalMayQueueTheNext) {
  QueuedAlert alert = Alert("a");
  alert.dismissed = [&] { queue.Enqueue(Alert("b")); };
  queue.Enqueue(std::move(alert));
  ExpectEvents("a+ a- b+ b- b!");
}

TEST_F(AlertQueueTest, ALockGoesAheadOfWhatWaits) {
  queue.Enqueue(Alert("a"));
  queue.EnqueueLock(Show("L"), {});
  ExpectEvents("L+ L- a+ a- a!");
}

TEST_F(AlertQueueTest, ACoverComesOverAStandingAlertALockOverBothAndNothingOverALock) {
  whileUp["a"] = [&] { queue.EnqueueCover(Alert("c")); };
  whileUp["c"] = [&] {
    queue.EnqueueCover(Alert("d"));
    queue.EnqueueLock(Show("L"), {});
  };
  whileUp["L"] = [&] { queue.Enqueue(Alert("b")); };
  queue.Enqueue(Alert("a"));
  ExpectEvents("a+ c+ L+ L- c- c! d+ d- d! a- a! b+ b- b!");
}

TEST_F(AlertQueueTest, OneLockServesAllWhoAskForItUntilItHasGone) {
  const auto ask = [&](const char* name) { queue.EnqueueLock(Show(name), Tell(name)); };
  whileUp["L"] = [&] { ask("N"); };
  ask("L");
  ask("M");
  Settle();
  ask("O");
  ExpectEvents("L+ L- L! M! N! O+ O- O!");
}

TEST_F(AlertQueueTest, ALaterAlertTakesThePlaceOfAnUnseenOneOfItsEntry) {
  queue.Enqueue(Alert("five minutes", game));
  queue.Enqueue(Alert("other", chat));
  queue.Enqueue(Alert("one minute", game));
  ExpectEvents("one minute+ one minute- five minutes! one minute! other+ other- other!");
}

TEST_F(AlertQueueTest, SpentAlertsAndAlertsAboutNoApplicationAreNotReplaced) {
  queue.Enqueue(Spent("spent", game));
  queue.Enqueue(Alert("curfew", game));
  queue.Enqueue(Alert("x"));
  queue.Enqueue(Alert("y"));
  ExpectEvents("spent+ spent- spent! curfew+ curfew- curfew! x+ x- x! y+ y- y!");
}

TEST_F(AlertQueueTest, UnseenAlertsOfAGoneEntryAreDroppedAndTheirWaitersTold) {
  queue.Enqueue(Alert("five minutes", game));
  queue.Enqueue(Alert("one minute", game));
  queue.Enqueue(Alert("other", chat));
  queue.Enqueue(Spent("spent", game));
  queue.DropAlertsOf(*game);
  EXPECT_EQ(events, QStringList()) << "told from inside the call";
  Settle();
  events.sort();
  ExpectEvents("five minutes! one minute! other! other+ other- spent! spent+ spent-");
}

TEST_F(AlertQueueTest, AnAlertThatIsUpOutlivesItsEntry) {
  whileUp["a"] = [&] {
    queue.DropAlertsOf(*game);
    game.reset();
  };
  queue.Enqueue(Alert("a", game));
  ExpectEvents("a+ a- a!");
}

TEST_F(AlertQueueTest, NothingIsShownWhileTheSessionIsAway) {
  queue.Enqueue(Alert("a"));
  queue.SetSessionActive(false);
  queue.EnqueueLock(Show("L"), {});
  queue.Enqueue(Alert("b", game));
  queue.DropAlertsOf(*game);
  ExpectEvents("b!");
  queue.SetSessionActive(true);
  ExpectEvents("b! L+ L- a+ a- a!");
}

TEST_F(AlertQueueTest, WhatStandsWhenTheSessionGoesKeepsTheNextOneBack) {
  whileUp["a"] = [&] { queue.SetSessionActive(false); };
  queue.Enqueue(Alert("a"));
  queue.Enqueue(Alert("b"));
  ExpectEvents("a+ a- a!");
  EXPECT_FALSE(queue.IsIdle());
}

}  // namespace
}  // namespace vardell
