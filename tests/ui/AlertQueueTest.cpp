#include "ui/AlertQueue.h"

#include <gtest/gtest.h>

#include <QGuiApplication>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "tests/support/QtEnvironment.h"

namespace vardell {
namespace {

const auto* const kEnvironment =
    testing::AddGlobalTestEnvironment(new test::QtEnvironment<QGuiApplication>);

using Events = std::vector<std::string>;

// Alerts "a", "b" … and locks "L", "M" …: "a+" is a coming up, "a-" its going, "a!" the telling.
class AlertQueueTest : public testing::Test {
 protected:
  // Long enough for everything that is due now, also in a nested loop.
  static void Settle() {
    for (int i = 0; i < 20; ++i) QCoreApplication::processEvents();
  }

  std::function<void()> Show(const std::string& name) {
    return [this, name] {
      events.push_back(name + "+");
      if (whileUp.count(name)) whileUp[name]();
      Settle();
      events.push_back(name + "-");
    };
  }

  QueuedAlert Alert(const std::string& name, WatchedAppPtr entry = nullptr) {
    QueuedAlert alert;
    alert.entry = std::move(entry);
    alert.show = Show(name);
    alert.dismissed = [this, name] { events.push_back(name + "!"); };
    return alert;
  }

  QueuedAlert Spent(const std::string& name, WatchedAppPtr entry) {
    QueuedAlert alert = Alert(name, std::move(entry));
    alert.replaceable = false;
    alert.outlivesEntry = true;
    return alert;
  }

  Events events;
  std::map<std::string, std::function<void()>> whileUp;
  WatchedAppPtr game = std::make_shared<WatchedApp>();
  WatchedAppPtr chat = std::make_shared<WatchedApp>();
  AlertQueue queue;
};

TEST_F(AlertQueueTest, ShowsOneAfterTheOtherAndNeverFromInsideACall) {
  queue.Enqueue(Alert("a"));
  queue.Enqueue(Alert("b"));
  EXPECT_EQ(events, Events{});
  EXPECT_FALSE(queue.IsIdle());
  Settle();
  EXPECT_EQ(events, (Events{"a+", "a-", "a!", "b+", "b-", "b!"}));
  EXPECT_TRUE(queue.IsIdle());
}

TEST_F(AlertQueueTest, WhatIsQueuedUnderAnAlertWaitsForItsEnd) {
  whileUp["a"] = [&] {
    EXPECT_FALSE(queue.IsIdle());
    queue.Enqueue(Alert("b"));
  };
  queue.Enqueue(Alert("a"));
  Settle();
  EXPECT_EQ(events, (Events{"a+", "a-", "a!", "b+", "b-", "b!"}));
}

TEST_F(AlertQueueTest, ADismissalMayQueueTheNext) {
  QueuedAlert alert = Alert("a");
  alert.dismissed = [&] { queue.Enqueue(Alert("b")); };
  queue.Enqueue(std::move(alert));
  Settle();
  EXPECT_EQ(events, (Events{"a+", "a-", "b+", "b-", "b!"}));
}

TEST_F(AlertQueueTest, ALockGoesAheadOfWhatWaits) {
  queue.Enqueue(Alert("a"));
  queue.EnqueueLock(Show("L"), {});
  Settle();
  EXPECT_EQ(events, (Events{"L+", "L-", "a+", "a-", "a!"}));
}

TEST_F(AlertQueueTest, ACoverComesOverAStandingAlertALockOverBothAndNothingOverALock) {
  whileUp["a"] = [&] { queue.EnqueueCover(Alert("c")); };
  whileUp["c"] = [&] {
    queue.EnqueueCover(Alert("d"));
    queue.EnqueueLock(Show("L"), {});
  };
  whileUp["L"] = [&] { queue.Enqueue(Alert("b")); };
  queue.Enqueue(Alert("a"));
  Settle();
  EXPECT_EQ(events, (Events{"a+", "c+", "L+", "L-", "c-", "c!", "d+", "d-", "d!", "a-", "a!", "b+",
                            "b-", "b!"}));
}

TEST_F(AlertQueueTest, OneLockServesAllWhoAskForItUntilItHasGone) {
  const auto ask = [&](const std::string& name) {
    queue.EnqueueLock(Show(name), [this, name] { events.push_back(name + "!"); });
  };
  whileUp["L"] = [&] { ask("N"); };
  ask("L");
  ask("M");
  Settle();
  ask("O");
  Settle();
  EXPECT_EQ(events, (Events{"L+", "L-", "L!", "M!", "N!", "O+", "O-", "O!"}));
}

TEST_F(AlertQueueTest, ALaterAlertTakesThePlaceOfAnUnseenOneOfItsEntry) {
  queue.Enqueue(Alert("five minutes", game));
  queue.Enqueue(Alert("other", chat));
  queue.Enqueue(Alert("one minute", game));
  Settle();
  EXPECT_EQ(events, (Events{"one minute+", "one minute-", "five minutes!", "one minute!", "other+",
                            "other-", "other!"}));
}

TEST_F(AlertQueueTest, WhatIsUpIsNotReplaced) {
  whileUp["a"] = [&] { queue.Enqueue(Alert("b", game)); };
  queue.Enqueue(Alert("a", game));
  Settle();
  EXPECT_EQ(events, (Events{"a+", "a-", "a!", "b+", "b-", "b!"}));
}

TEST_F(AlertQueueTest, SpentAlertsAndAlertsAboutNoApplicationAreNotReplaced) {
  queue.Enqueue(Spent("spent", game));
  queue.Enqueue(Alert("curfew", game));
  queue.Enqueue(Alert("x"));
  queue.Enqueue(Alert("y"));
  Settle();
  EXPECT_EQ(events, (Events{"spent+", "spent-", "spent!", "curfew+", "curfew-", "curfew!", "x+",
                            "x-", "x!", "y+", "y-", "y!"}));
}

TEST_F(AlertQueueTest, UnseenAlertsOfAGoneEntryAreDroppedAndTheirWaitersTold) {
  queue.Enqueue(Alert("five minutes", game));
  queue.Enqueue(Alert("one minute", game));
  queue.Enqueue(Alert("other", chat));
  queue.Enqueue(Spent("spent", game));
  queue.DropAlertsOf(*game);
  EXPECT_EQ(events, Events{}) << "told from inside the call";
  Settle();
  std::sort(events.begin(), events.end());
  EXPECT_EQ(events, (Events{"five minutes!", "one minute!", "other!", "other+", "other-", "spent!",
                            "spent+", "spent-"}));
}

TEST_F(AlertQueueTest, AnAlertThatIsUpOutlivesItsEntry) {
  whileUp["a"] = [&] {
    queue.DropAlertsOf(*game);
    game.reset();
  };
  queue.Enqueue(Alert("a", game));
  Settle();
  EXPECT_EQ(events, (Events{"a+", "a-", "a!"}));
}

TEST_F(AlertQueueTest, NothingIsShownWhileTheSessionIsAway) {
  queue.Enqueue(Alert("a"));
  queue.SetSessionActive(false);
  queue.EnqueueLock(Show("L"), {});
  queue.Enqueue(Alert("b", game));
  queue.DropAlertsOf(*game);
  Settle();
  EXPECT_EQ(events, Events{"b!"});
  queue.SetSessionActive(true);
  Settle();
  EXPECT_EQ(events, (Events{"b!", "L+", "L-", "a+", "a-", "a!"}));
}

TEST_F(AlertQueueTest, WhatStandsWhenTheSessionGoesKeepsTheNextOneBack) {
  whileUp["a"] = [&] { queue.SetSessionActive(false); };
  queue.Enqueue(Alert("a"));
  queue.Enqueue(Alert("b"));
  Settle();
  EXPECT_EQ(events, (Events{"a+", "a-", "a!"}));
  EXPECT_FALSE(queue.IsIdle());
}

}  // namespace
}  // namespace vardell
