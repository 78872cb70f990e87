#include "server/StoreThread.h"

#include <algorithm>
#include <stdexcept>

#include "Common Sources/Caps.h"
#include "server/SpoolRebase.h"
#include "server/StoreThreadImpl.h"

namespace vardell::server {
namespace {

using SteadyClock = std::chrono::steady_clock;

// For the thread to begin with what is waited for; and where that was in vain, for a while.
constexpr std::chrono::milliseconds kPatience{500};
constexpr std::chrono::milliseconds kLittlePatience{20};
constexpr std::chrono::seconds kTimeOfLittlePatience{2};

QString Busy() {
  return QStringLiteral("the store is still busy with what came before; try again");
}

}  // namespace

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
