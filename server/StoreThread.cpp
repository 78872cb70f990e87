#include "server/StoreThread.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "Common Sources/Caps.h"
#include "server/Spool.h"
#include "server/SpoolRebase.h"

namespace vardell::server {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTimeBetweenTries{1};
constexpr std::chrono::seconds kTimeBetweenNews{1};
// For the thread to begin with what is waited for; and where that was in vain, for a while.
constexpr std::chrono::milliseconds kPatience{500};
constexpr std::chrono::milliseconds kLittlePatience{20};
constexpr std::chrono::seconds kTimeOfLittlePatience{2};
constexpr std::chrono::microseconds kShortestPauseBetweenChanges{50};
constexpr std::chrono::microseconds kLongestPauseBetweenChanges{500};
constexpr std::chrono::milliseconds kLongestGathering{20};

QString Busy() {
  return QStringLiteral("the store is still busy with what came before; try again");
}

}  // namespace

struct StoreThread::Impl {
  Impl(std::unique_ptr<Store> itsStore, Options itsOptions);

  void Run();
  // What came in; false where the thread is to end.
  bool Wait();
  void Gather(std::unique_lock<std::mutex>& lock);
  void Write();
  bool WriteToStore();
  void WriteToSpool();
  void RunTask();
  enum class Everything { Load, Later };
  void LookForNews(Everything everything);
  void LookForNewsIfDue();
  void Publish(StoreContents everything);
  void TryToComeBack();
  void ComeBackForTask();
  bool Replay(QString* error);
  bool DropSpool(QString* error);
  void DropStored(std::uint64_t last);
  ApplyResult Apply(const std::vector<StoreChange>& changes, std::uint64_t lastNumber);
  void Fail(const QString& error);
  void MarkStored(std::uint64_t number);
  void Say(const LogEvent& line);
  void Notify();

  // Runs `action` on the thread, after all that was submitted. False, and it is not run, where the
  // thread does not come to it in a short time.
  bool OnThread(const std::function<void()>& action);
  SteadyClock::duration Patience(SteadyClock::duration most) const;

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

StoreThread::Impl::Impl(std::unique_ptr<Store> itsStore, Options itsOptions)
    : store(std::move(itsStore)), options(std::move(itsOptions)) {
  if (options.spool.isEmpty()) return;
  spool.emplace(options.spool);
  store->SetServerId(spool->ServerId());
  if (spool->WasDamaged()) {
    news.lines.push_back(
        QStringLiteral("the end of the spool %1 was damaged and is left out; it is "
                       "kept in %1.damaged")
            .arg(options.spool));
  }
}

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

SteadyClock::duration StoreThread::Impl::Patience(SteadyClock::duration most) const {
  const bool isLittle = SteadyClock::now() < littlePatienceUntil;
  return isLittle ? std::min<SteadyClock::duration>(most, kLittlePatience) : most;
}

bool StoreThread::Impl::OnThread(const std::function<void()>& action) {
  std::unique_lock lock(mutex);
  isTaskDone = false;
  task = action;
  ++taskNumber;
  wake.notify_one();
  if (!progress.wait_for(lock, Patience(kPatience), [this] { return !task; })) {
    task = nullptr;
    littlePatienceUntil = SteadyClock::now() + kTimeOfLittlePatience;
    return false;
  }
  progress.wait(lock, [this] { return isTaskDone; });
  return true;
}

StoreThread::StoreThread(std::unique_ptr<Store> store, Options options)
    : impl_(std::make_unique<Impl>(std::move(store), std::move(options))) {}

StoreThread::~StoreThread() {
  if (!impl_->thread.joinable()) return;
  {
    const std::lock_guard lock(impl_->mutex);
    impl_->isStopping = true;
  }
  impl_->wake.notify_one();
  impl_->thread.join();
}

// Lanes of the spool are left out: they may be of another boot, and are made anew.
StoreContents StoreThread::Load() {
  Impl& impl = *impl_;
  QString error;
  impl.applied = impl.store->LastNumber();
  StoredAccounts accounts;
  const bool isRebased = impl.spool && impl.spool->Count() != 0 && !impl.store->IsShared();
  if (isRebased) accounts = AccountsOf(impl.store->Load(impl.options.bootId));
  while (impl.spool) {
    std::vector<NumberedChange> next = impl.spool->Next(kMaxChangesInBatch, &error);
    if (!error.isEmpty()) throw std::runtime_error(error.toStdString());
    if (next.empty()) break;
    std::vector<StoreChange> changes;
    for (NumberedChange& one : next) {
      one.change.lane.reset();
      if (one.number > impl.applied) changes.push_back(std::move(one.change));
    }
    if (changes.empty()) continue;
    if (isRebased) changes = Rebased(changes, &accounts);
    const ApplyResult result = impl.Apply(changes, next.back().number);
    if (result.status != ApplyStatus::Done) throw StoreAway(result.error.toStdString());
    impl.applied = next.back().number;
  }
  if (!impl.DropSpool(&error)) throw std::runtime_error(error.toStdString());
  StoreContents contents = impl.store->Load(impl.options.bootId);
  impl.submitted = impl.applied;
  impl.stored = impl.applied;
  impl.thread = std::thread([&impl] { impl.Run(); });
  return contents;
}

std::uint64_t StoreThread::Submit(StoreChange change) {
  const std::lock_guard lock(impl_->mutex);
  impl_->incoming.push_back({++impl_->submitted, std::move(change)});
  if (impl_->incoming.size() == 1) impl_->wake.notify_one();
  return impl_->submitted;
}

std::uint64_t StoreThread::Submitted() const {
  return impl_->submitted;
}

std::uint64_t StoreThread::Stored() const {
  return impl_->stored;
}

StoreThread::News StoreThread::TakeNews() {
  const std::lock_guard lock(impl_->mutex);
  return std::exchange(impl_->news, News());
}

StoreFacts StoreThread::Facts() const {
  const std::lock_guard lock(impl_->mutex);
  StoreFacts facts = impl_->facts;
  facts.waiting = impl_->submitted - impl_->stored;
  return facts;
}

ApplyResult StoreThread::ApplyNow(const std::vector<StoreChange>& changes, News* before) {
  ApplyResult result;
  Impl& impl = *impl_;
  const bool hasRun = impl.OnThread([&] {
    impl.ComeBackForTask();
    if (impl.isAway) {
      result = {ApplyStatus::Failed, Facts().problem, {}};
    } else {
      result = impl.Apply(changes, 0);
    }
    if (!impl.isAway && result.status == ApplyStatus::Failed) impl.Fail(result.error);
    if (result.status == ApplyStatus::Conflict) impl.LookForNews(Impl::Everything::Later);
    *before = TakeNews();
  });
  if (!hasRun) return {ApplyStatus::Failed, Busy(), {}};
  return result;
}

bool StoreThread::Call(const std::function<void(Store&)>& action, QString* error) {
  bool isDone = false;
  Impl& impl = *impl_;
  const bool hasRun = impl.OnThread([&] {
    impl.ComeBackForTask();
    if (impl.isAway) {
      *error = Facts().problem;
      return;
    }
    try {
      action(*impl.store);
      isDone = true;
    } catch (const std::runtime_error& problem) {
      *error = QString::fromUtf8(problem.what());
    }
  });
  if (!hasRun) *error = Busy();
  return isDone;
}

void StoreThread::LoadAll() {
  const std::lock_guard lock(impl_->mutex);
  impl_->mustLoad = true;
  impl_->wake.notify_one();
}

bool StoreThread::Settle(std::chrono::milliseconds most) {
  Impl& impl = *impl_;
  std::unique_lock lock(impl.mutex);
  const auto isSettled = [&impl] { return impl.stored >= impl.submitted; };
  if (impl.progress.wait_for(lock, impl.Patience(most), isSettled)) return true;
  impl.littlePatienceUntil = SteadyClock::now() + kTimeOfLittlePatience;
  return false;
}

bool StoreThread::IsShared() const {
  return impl_->store->IsShared();
}

QString StoreThread::Description() const {
  return impl_->store->Description();
}

}  // namespace vardell::server
