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

class StoreThread {
 public:
  struct Options {
    QString spool;   // a file, made where it is missing; empty: none
    QString bootId;  // for the lanes
    // On the store's thread, when there may be something for TakeNews or more is stored.
    std::function<void()> hasNews;
  };

  // What the network's thread does not know yet.
  struct News {
    // Shared stores: accounts as they are after changes of this Server, up to that number.
    struct Applied {
      std::vector<CreditRow> accounts;
      std::uint64_t through = 0;
    };
    std::vector<Applied> applied;
    std::vector<StoreNews> others;  // what other Servers have changed, in order
    // In place of all that is known, but for lanes and what agents changed after that number.
    std::optional<StoreContents> everything;
    std::uint64_t everythingThrough = 0;
    std::vector<LogEvent> lines;  // for the log
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
  StoreFacts Facts() const;

  // Shared stores: everything is read again, for TakeNews. Does not wait.
  void LoadAll();

  // --- These wait: for all that was submitted before, half a second at most, and then for
  // themselves. They fail at once while the store is away. After a wait that was in vain the next
  // ones are hardly patient for a while: whoever asks again and again must not stop the network.

  // In one transaction. `before`: news that are older than the result, after a conflict with what
  // others have changed; those that TakeNews tells later are newer.
  ApplyResult ApplyNow(const std::vector<StoreChange>& changes, News* before);
  // Runs on the store's thread. False, with a line for people, where it was not run, or threw
  // std::runtime_error.
  [[nodiscard]] bool Call(const std::function<void(Store&)>& action, QString* error);
  // Until all that was submitted is stored, or this long. Whether it is.
  bool Settle(std::chrono::milliseconds most);

  bool IsShared() const;
  QString Description() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vardell::server
