// The inside of StoreThread: StoreThread.cpp has the network's half, StoreWriting.cpp the thread's.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "server/Spool.h"
#include "server/StoreThread.h"

namespace vardell::server {

struct StoreThread::Impl {
  using SteadyClock = std::chrono::steady_clock;

  Impl(std::unique_ptr<Store> itsStore, Options itsOptions);

  // --- On the network's thread.

  // Runs `action` on the store's, after all that was submitted. False, and it is not run, where
  // that one does not come to it in a short time.
  bool OnThread(const std::function<void()>& action);
  SteadyClock::duration Patience(SteadyClock::duration most) const;

  // --- On the store's thread; until that runs, on the network's.

  void Run();
  // What came in; false where the thread is to end.
  bool Wait();
  void Gather(std::unique_lock<std::mutex>& lock);
  void RunTask();

  void Write();
  bool WriteToStore();
  void WriteToSpool();
  ApplyResult Apply(const std::vector<StoreChange>& changes, std::uint64_t lastNumber);
  void MarkStored(std::uint64_t number);

  void Fail(const QString& error);
  void TryToComeBack();
  void ComeBackForTask();
  bool Replay(QString* error);
  bool DropSpool(QString* error);
  void DropStored(std::uint64_t last);

  enum class Everything { Load, Later };
  void LookForNews(Everything everything);
  void LookForNewsIfDue();
  void Publish(StoreContents everything);
  void Say(const LogEvent& line);
  void Notify();

  std::unique_ptr<Store> store;
  const Options options;
  std::optional<Spool> spool;

  mutable std::mutex mutex;
  std::condition_variable wake;      // for the thread
  std::condition_variable progress;  // from it
  std::vector<NumberedChange> incoming;
  std::function<void()> task;  // at most one: who asks for it waits
  std::uint64_t taskNumber = 0;
  bool isTaskDone = false;
  bool isStopping = false;
  bool mustLoad = false;
  News news;
  StoreFacts facts;
  std::atomic<std::uint64_t> stored{0};
  // The network's thread's.
  std::uint64_t submitted = 0;
  SteadyClock::time_point littlePatienceUntil;

  // The thread's own.
  std::vector<NumberedChange> unwritten;  // neither in the store nor in the spool
  std::uint64_t readyTask = 0;            // number of the task that came in with them
  bool isLast = false;                    // nothing comes in any more
  bool isAway = false;
  bool spoolFails = false;
  std::uint64_t applied = 0;          // in the store
  SteadyClock::duration lastTook{0};  // by a transaction
  SteadyClock::time_point nextTry;
  SteadyClock::time_point nextNews;
  std::thread thread;
};

}  // namespace vardell::server
