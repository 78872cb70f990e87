// The half of StoreThread that is on the store's thread.
#include <pthread.h>

#include <algorithm>
#include <stdexcept>

#include "Common Sources/Caps.h"
#include "server/StoreThreadImpl.h"

namespace vardell::server {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTimeBetweenTries{1};
constexpr std::chrono::seconds kTimeBetweenNews{1};
constexpr std::chrono::microseconds kShortestPauseBetweenChanges{50};
constexpr std::chrono::microseconds kLongestPauseBetweenChanges{500};
constexpr std::chrono::milliseconds kLongestGathering{20};

}  // namespace

void StoreThread::Impl::Notify() {
  progress.notify_all();
  if (options.hasNews) options.hasNews();
}

void StoreThread::Impl::Say(const LogEvent& line) {
  {
    const std::lock_guard lock(mutex);
    news.lines.push_back(line);
  }
  Notify();
}

void StoreThread::Impl::MarkStored(std::uint64_t number) {
  {
    const std::lock_guard lock(mutex);
    stored = std::max(stored.load(), number);
    facts.spooled = spool ? spool->Count() : 0;
  }
  Notify();
}

void StoreThread::Impl::Fail(const QString& error) {
  {
    const std::lock_guard lock(mutex);
    ++facts.failures;
    facts.problem = error;
    if (!isAway) facts.since = QDateTime::currentDateTime();
    facts.isAway = true;
  }
  if (!isAway) {
    Say({"store-away", LogPriority::Error,
         error + QStringLiteral("; agents are answered from memory until then")});
  }
  isAway = true;
  nextTry = SteadyClock::now() + kTimeBetweenTries;
}

ApplyResult StoreThread::Impl::Apply(const std::vector<StoreChange>& changes,
                                     std::uint64_t lastNumber) {
  const SteadyClock::time_point begin = SteadyClock::now();
  ApplyResult result = store->Apply(changes, options.bootId, lastNumber);
  lastTook = SteadyClock::now() - begin;
  const std::chrono::duration<double> took = lastTook;
  const std::lock_guard lock(mutex);
  facts.seconds += took.count();
  if (result.status == ApplyStatus::Done && lastNumber != 0) {
    ++facts.batches;
    facts.changes += changes.size();
  }
  return result;
}

bool StoreThread::Impl::WriteToStore() {
  std::size_t done = 0;
  while (done < unwritten.size()) {
    const std::size_t size = std::min(unwritten.size() - done, kMaxChangesInBatch);
    const std::uint64_t last = unwritten[done + size - 1].number;
    std::vector<StoreChange> changes;
    changes.reserve(size);
    for (std::size_t i = done; i < done + size; ++i) {
      changes.push_back(std::move(unwritten[i].change));
    }
    ApplyResult result = Apply(changes, last);
    if (result.status != ApplyStatus::Done) {
      for (std::size_t i = 0; i < size; ++i) unwritten[done + i].change = std::move(changes[i]);
      unwritten.erase(unwritten.begin(), unwritten.begin() + static_cast<std::ptrdiff_t>(done));
      Fail(result.error);
      return false;
    }
    applied = last;
    done += size;
    if (!result.accounts.empty()) {
      const std::lock_guard lock(mutex);
      news.applied.push_back({std::move(result.accounts), last});
    }
    if (done == unwritten.size()) unwritten.clear();
    MarkStored(last);
  }
  return true;
}

void StoreThread::Impl::WriteToSpool() {
  while (!unwritten.empty()) {
    const auto begin = unwritten.begin();
    const auto size = static_cast<std::ptrdiff_t>(std::min(unwritten.size(), kMaxChangesInBatch));
    QString error;
    if (!spool || !spool->Append({begin, begin + size}, &error)) {
      if (spool && !spoolFails) Say(error + QStringLiteral("; changes wait in memory alone"));
      spoolFails = true;
      return MarkStored(0);
    }
    spoolFails = false;
    const std::uint64_t last = unwritten[static_cast<std::size_t>(size) - 1].number;
    unwritten.erase(begin, begin + size);
    MarkStored(last);
  }
}

void StoreThread::Impl::Write() {
  if (!isAway && !unwritten.empty()) (void)WriteToStore();
  if (isAway) WriteToSpool();
}

void StoreThread::Impl::DropStored(std::uint64_t last) {
  std::erase_if(unwritten, [last](const NumberedChange& one) { return one.number <= last; });
}

bool StoreThread::Impl::DropSpool(QString* error) {
  return !spool || spool->Count() == 0 || spool->Clear(error);
}

// What comes in meanwhile is spooled behind it, so that nobody waits longer for that.
bool StoreThread::Impl::Replay(QString* error) {
  applied = store->LastNumber();
  if (spool) spool->Rewind();
  while (spool) {
    const std::vector<NumberedChange> next = spool->Next(kMaxChangesInBatch, error);
    if (!error->isEmpty()) return false;
    if (next.empty()) break;
    std::vector<StoreChange> changes;
    for (const NumberedChange& one : next) {
      if (one.number > applied) changes.push_back(one.change);
    }
    if (changes.empty()) continue;
    const ApplyResult result = Apply(changes, next.back().number);
    if (result.status != ApplyStatus::Done) {
      *error = result.error;
      return false;
    }
    applied = next.back().number;
    {
      const std::lock_guard lock(mutex);
      for (NumberedChange& one : incoming) unwritten.push_back(std::move(one));
      incoming.clear();
    }
    WriteToSpool();
  }
  DropStored(applied);
  return DropSpool(error);
}

void StoreThread::Impl::TryToComeBack() {
  nextTry = SteadyClock::now() + kTimeBetweenTries;
  QString error;
  std::optional<StoreContents> everything;
  try {
    if (!store->Recover(&error) || !Replay(&error)) return Fail(error);
    if (store->IsShared()) everything = store->Load(options.bootId);
  } catch (const std::runtime_error& problem) {
    return Fail(QString::fromUtf8(problem.what()));
  }
  if (everything) Publish(std::move(*everything));
  if (!WriteToStore()) return;
  isAway = false;
  {
    const std::lock_guard lock(mutex);
    facts.isAway = false;
    facts.problem.clear();
  }
  Say({"store-back", LogPriority::Notice,
       QStringLiteral("the store takes changes again, all is written")});
  MarkStored(applied);
}

// Whoever waits for a task gets no more than what is stored by then: to replay much takes its time.
void StoreThread::Impl::ComeBackForTask() {
  const bool isSoonDone = !spool || spool->Count() <= kMaxChangesInBatch;
  if (isAway && !store->IsShared() && isSoonDone) TryToComeBack();
}

// What the network's thread has not taken yet is in it.
void StoreThread::Impl::Publish(StoreContents everything) {
  {
    const std::lock_guard lock(mutex);
    news.applied.clear();
    news.others.clear();
    news.everything = std::move(everything);
    news.everythingThrough = applied;
    mustLoad = false;
  }
  Notify();
}

void StoreThread::Impl::LookForNews(Everything everything) {
  nextNews = SteadyClock::now() + kTimeBetweenNews;
  try {
    StoreNews found = store->News();
    if (found.IsEmpty()) return;
    if (!found.everything) {
      {
        const std::lock_guard lock(mutex);
        news.others.push_back(std::move(found));
      }
      Notify();
    } else if (everything == Everything::Load) {
      Publish(store->Load(options.bootId));
    } else {
      nextNews = SteadyClock::now();
    }
  } catch (const std::runtime_error& problem) {
    Fail(QString::fromUtf8(problem.what()));
  }
}

void StoreThread::Impl::LookForNewsIfDue() {
  const bool isAllWanted = [this] {
    const std::lock_guard lock(mutex);
    return mustLoad;
  }();
  if (!isAllWanted && SteadyClock::now() < nextNews) return;
  if (!isAllWanted) return LookForNews(Everything::Load);
  try {
    Publish(store->Load(options.bootId));
  } catch (const std::runtime_error& problem) {
    Fail(QString::fromUtf8(problem.what()));
  }
}

// While changes come in quick succession, for a part of the time that a transaction takes: agents
// that got their answers together report together again, and one flush of the disk does for all.
void StoreThread::Impl::Gather(std::unique_lock<std::mutex>& lock) {
  const SteadyClock::duration pause =
      std::min<SteadyClock::duration>(lastTook / 16, kLongestPauseBetweenChanges);
  if (isAway || pause < kShortestPauseBetweenChanges) return;
  const SteadyClock::time_point end =
      SteadyClock::now() + std::min<SteadyClock::duration>(lastTook / 2, kLongestGathering);
  for (std::size_t count = 0; count < incoming.size() && SteadyClock::now() < end;) {
    count = incoming.size();
    wake.wait_for(lock, pause, [this] { return task || isStopping; });
    if (task || isStopping) return;
  }
}

bool StoreThread::Impl::Wait() {
  std::unique_lock lock(mutex);
  const auto isReady = [this] {
    return !incoming.empty() || task || isStopping || (mustLoad && !isAway);
  };
  if (isAway) {
    wake.wait_until(lock, nextTry, isReady);
  } else if (store->IsShared()) {
    wake.wait_until(lock, nextNews, isReady);
  } else {
    wake.wait(lock, isReady);
  }
  Gather(lock);
  if (unwritten.empty()) {
    unwritten.swap(incoming);
  } else {
    std::move(incoming.begin(), incoming.end(), std::back_inserter(unwritten));
    incoming.clear();
  }
  readyTask = task ? taskNumber : 0;
  isLast = isStopping;
  return !isStopping || !unwritten.empty();
}

// It may have been given up meanwhile, also for another one, whose changes are still to come in.
void StoreThread::Impl::RunTask() {
  std::function<void()> todo;
  {
    const std::lock_guard lock(mutex);
    if (readyTask == taskNumber) todo = std::exchange(task, nullptr);
  }
  if (!todo) return;
  todo();
  const std::lock_guard lock(mutex);
  isTaskDone = true;
  progress.notify_all();
}

void StoreThread::Impl::Run() {
  (void)pthread_setname_np(pthread_self(), "store");
  while (Wait()) {
    Write();
    if (isAway && (SteadyClock::now() >= nextTry || (isLast && !unwritten.empty()))) {
      TryToComeBack();
    }
    RunTask();
    if (!isAway && store->IsShared()) LookForNewsIfDue();
    if (isLast) break;
  }
}

}  // namespace vardell::server
