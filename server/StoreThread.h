// Writes a Household's changes on a thread of its own, many of them in one transaction, so that the
// network's thread does not wait for the disk; and keeps them in a file of its own, the spool,
// while the store fails or is away. Everything but the thread itself is called on the network's
// thread.
//
// A change is stored once its number is at most Stored(): it is in the store or in the spool, on
// disk. What is spooled is stored in order, each change once, when the store is back, also by the
// next Server that is started with this spool. Where the spool fails, too, changes wait in memory.
#pragma once

#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "server/Store.h"

namespace vardell::server {

struct StoreThreadFacts {
  bool isAway = false;         // the store fails
  QString problem;             // then: why, for people
  std::uint64_t waiting = 0;   // changes that are not on disk at all yet
  std::uint64_t spooled = 0;   // that are in the spool alone
  std::uint64_t batches = 0;   // transactions of agents' changes
  std::uint64_t changes = 0;   // in them
  std::uint64_t failures = 0;  // transactions that were refused
  double seconds = 0;          // that transactions took
};

class StoreThread {
 public:
  struct Options {
    QString spool;   // a file, made where it is missing; empty: none
    QString bootId;  // for the lanes
    // On the store's thread, when there may be something for TakeNews or more is stored.
    std::function<void()> hasNews;
  };

  // What it was found that the network's thread does not know yet, in order.
  struct News {
    // Shared stores: what the accounts are after changes of this Server. `done`: how many of its
    // changes of an account are stored now, so many fewer are under way.
    struct Stored {
      CreditRow account;
      int done = 0;
    };
    std::vector<Stored> stored;
    std::vector<StoreNews> others;            // what other Servers have changed
    std::optional<StoreContents> everything;  // in place of what is known: all was loaded anew
    std::vector<QString> lines;               // for the log
  };

  // Throws std::runtime_error with a line for people where the spool cannot be used.
  StoreThread(std::unique_ptr<Store> store, Options options);
  // What was submitted is stored or spooled before, if it can be.
  ~StoreThread();
  StoreThread(const StoreThread&) = delete;
  StoreThread& operator=(const StoreThread&) = delete;

  // Stores what the spool has kept, and reads everything. Once, before all else. Waits; throws as
  // Store::Load does.
  StoreContents Load();

  // The change's number; they count up by one. Does not wait.
  std::uint64_t Submit(StoreChange change);
  std::uint64_t Submitted() const;
  std::uint64_t Stored() const;
  News TakeNews();
  StoreThreadFacts Facts() const;

  // --- These wait: for all that was submitted before, and then for themselves. They fail at once
  // while the store is away.

  // In one transaction.
  ApplyResult ApplyNow(std::vector<StoreChange> changes);
  // Runs on the store's thread. False, with a line for people, where it was not run, or threw
  // std::runtime_error.
  [[nodiscard]] bool Call(const std::function<void(Store&)>& action, QString* error);
  // Until all that was submitted is stored, or this long.
  void Settle(std::chrono::milliseconds most);

  bool IsShared() const;
  QString Description() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vardell::server
