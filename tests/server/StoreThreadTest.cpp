#include "server/StoreThread.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <mutex>

#include "server/Spool.h"
#include "tests/server/StoreFixture.h"
#include "tests/support/Waiting.h"

namespace vardell::server {
namespace {

// What outlives the Server, as a store does: what each change that was stored claimed, in order.
struct Disk {
  enum class Health { Well, Refuses, StoresAndThenFails };

  std::mutex mutex;
  Health health = Health::Well;
  std::vector<std::int64_t> minutes;
  std::map<QString, std::uint64_t> numbers;  // by Server

  void Become(Health wanted) {
    const std::lock_guard lock(mutex);
    health = wanted;
  }
  std::vector<std::int64_t> Minutes() {
    const std::lock_guard lock(mutex);
    return minutes;
  }
};

class FakeStore : public Store {
 public:
  explicit FakeStore(Disk& disk) : disk_(disk) {}

  void SetServerId(const QString& id) override { id_ = id; }
  bool IsShared() const override { return false; }
  QString Description() const override { return QStringLiteral("fake"); }
  StoreContents Load(const QString&) override { return {}; }
  std::uint64_t LastNumber() override { return disk_.numbers[id_]; }
  ApplyResult Apply(const std::vector<StoreChange>& changes, const QString&,
                    std::uint64_t lastNumber) override {
    const std::lock_guard lock(disk_.mutex);
    if (disk_.health == Disk::Health::Refuses) return Failed();
    for (const StoreChange& change : changes) {
      const bool isWhole = change.ledger->user == QLatin1String("anna");
      disk_.minutes.push_back(isWhole ? change.ledger->claimed.value() : -1);
    }
    if (lastNumber != 0) disk_.numbers[id_] = lastNumber;
    if (disk_.health == Disk::Health::Well) return {};
    disk_.health = Disk::Health::Refuses;
    return Failed();
  }
  StoreNews News() override { return {}; }
  bool Recover(QString* error) override {
    const std::lock_guard lock(disk_.mutex);
    if (disk_.health == Disk::Health::Well) return true;
    *error = Failed().error;
    return false;
  }
  bool WriteAhead(const std::vector<LedgerRow>&, QString*) override { return false; }
  ApplyResult ApplyLast(const std::vector<StoreChange>&, const QString&) override {
    return Failed();
  }
  bool HasUnfinishedRestore() const override { return false; }
  bool ForgetUnfinished(int, QString*) override { return false; }
  std::optional<AdjustmentRow> Adjustment(const QString&) override { return std::nullopt; }
  std::vector<LedgerRow> Ledger(std::int64_t, const QString&, const QString&, int, bool) override {
    return {};
  }

 private:
  static ApplyResult Failed() { return {ApplyStatus::Failed, QStringLiteral("broken"), {}}; }

  Disk& disk_;
  QString id_;
};

class StoreThreadTest : public testing::Test {
 protected:
  void Open(bool hasSpool = true) {
    thread_.reset();
    const QString spool = hasSpool ? folder_.filePath(QStringLiteral("spool")) : QString();
    thread_ =
        std::make_unique<StoreThread>(std::make_unique<FakeStore>(disk_),
                                      StoreThread::Options{spool, QStringLiteral("boot"), {}});
    (void)thread_->Load();
  }
  void Submit(int first, int last) {
    for (int i = first; i <= last; ++i) {
      StoreChange change;
      change.ledger.emplace().claimed = i;
      change.ledger->user = QStringLiteral("anna");
      change.lane = {QStringLiteral("anna"), QStringLiteral("game"), QStringLiteral("local"),
                     std::chrono::milliseconds(i)};
      (void)thread_->Submit(std::move(change));
    }
  }
  bool IsAllStored() { return thread_->Settle(std::chrono::seconds(20)); }
  bool IsAway() const { return thread_->Facts().isAway; }
  static std::vector<std::int64_t> UpTo(std::int64_t last) {
    std::vector<std::int64_t> all;
    for (std::int64_t i = 1; i <= last; ++i) all.push_back(i);
    return all;
  }

  QTemporaryDir folder_;
  Disk disk_;
  std::unique_ptr<StoreThread> thread_;
};

TEST_F(StoreThreadTest, WhatFailsIsSpooledAndAppliedOnceInOrderWhenTheStoreIsBack) {
  for (const auto failure : {Disk::Health::Refuses, Disk::Health::StoresAndThenFails}) {
    SCOPED_TRACE(static_cast<int>(failure));
    disk_.minutes.clear();
    Open();
    Submit(1, 500);
    EXPECT_TRUE(IsAllStored());
    disk_.Become(failure);
    Submit(501, 600);
    EXPECT_TRUE(IsAllStored()) << "in the spool";
    EXPECT_TRUE(IsAway());
    Submit(601, 5000);
    EXPECT_TRUE(IsAllStored());
    EXPECT_LE(disk_.Minutes().size(), 600u);
    StoreThread::News before;
    EXPECT_EQ(thread_->ApplyNow({}, &before).status, ApplyStatus::Failed);
    disk_.Become(Disk::Health::Well);
    Submit(5001, 5010);
    EXPECT_TRUE(test::WaitUntil([&] { return !IsAway(); }));
    Submit(5011, 5020);
    EXPECT_TRUE(IsAllStored());
    EXPECT_EQ(disk_.Minutes(), UpTo(5020));
    EXPECT_EQ(thread_->Facts().spooled, 0u);
  }
}

TEST_F(StoreThreadTest, TheNextServerAppliesWhatWasSpooled) {
  Open();
  disk_.Become(Disk::Health::StoresAndThenFails);
  Submit(1, 100);
  EXPECT_TRUE(IsAllStored());
  Submit(101, 200);
  EXPECT_TRUE(IsAllStored());
  thread_.reset();
  EXPECT_THROW(Open(), StoreAway) << "nothing can be known yet";
  disk_.Become(Disk::Health::Well);
  Open();
  EXPECT_EQ(disk_.Minutes(), UpTo(200));
  Submit(201, 210);
  Open();
  EXPECT_EQ(disk_.Minutes(), UpTo(210));
}

TEST_F(StoreThreadTest, WithoutASpoolChangesWaitInMemory) {
  Open(false);
  disk_.Become(Disk::Health::Refuses);
  Submit(1, 100);
  EXPECT_TRUE(test::WaitUntil([&] { return IsAway(); }));
  EXPECT_EQ(thread_->Stored(), 0u);
  disk_.Become(Disk::Health::Well);
  EXPECT_TRUE(IsAllStored());
  EXPECT_EQ(disk_.Minutes(), UpTo(100));
}

TEST_F(StoreThreadTest, WhoeverWaitsForAStoreThatHangsIsRefusedAndNothingIsDoneLater) {
  Open();
  std::unique_lock hangs(disk_.mutex);
  Submit(1, 1);
  StoreChange change;
  change.ledger.emplace().claimed = 99;
  StoreThread::News before;
  QString error;
  EXPECT_EQ(thread_->ApplyNow({change}, &before).status, ApplyStatus::Failed);
  EXPECT_FALSE(thread_->Call([](Store&) { ADD_FAILURE(); }, &error));
  EXPECT_FALSE(error.isEmpty());
  hangs.unlock();
  EXPECT_TRUE(IsAllStored());
  EXPECT_EQ(thread_->ApplyNow({}, &before).status, ApplyStatus::Done);
  EXPECT_EQ(disk_.Minutes(), UpTo(1));
}

TEST_F(StoreThreadTest, ASpoolKeepsEverythingThatAnAgentChanges) {
  const QString path = folder_.filePath(QStringLiteral("spool"));
  const QString anna = QStringLiteral("anna");
  const QString game = QStringLiteral("org.example.game");
  LedgerRow row;
  row.time =
      QDateTime::fromString(QStringLiteral("2009-03-05T18:00:00.123+05:30"), Qt::ISODateWithMs);
  row.user = anna;
  row.identifier = game;
  row.host = QStringLiteral("192.0.2.1");
  row.source = QStringLiteral("report");
  row.minutes = -3;
  row.credit = 1ll << 40;
  row.used = 4;
  row.claimed = -1;
  row.actor = QStringLiteral("agent of anna");
  StoreChange change;
  change.credit = {anna, game, 7, true};
  change.lane = {anna, game, row.host, std::chrono::milliseconds(12)};
  change.forgottenLane = {anna, game, QStringLiteral("192.0.2.2"), {}};
  change.ledger = row;
  QString error;
  EXPECT_TRUE(Spool(path).Append({{9, change}, {10, StoreChange()}}, &error));
  Spool spool(path);
  EXPECT_EQ(spool.LastNumber(), 10u);
  const std::vector<NumberedChange> read = spool.Next(5, &error);
  ASSERT_EQ(read.size(), 2u);
  EXPECT_EQ(read[0].number, 9u);
  const StoreChange& kept = read[0].change;
  EXPECT_EQ(std::tuple(kept.credit->minutes, kept.credit->spent), std::tuple(7, true));
  EXPECT_EQ(kept.lane->paidUntil, change.lane->paidUntil);
  EXPECT_EQ(kept.forgottenLane->host, change.forgottenLane->host);
  EXPECT_EQ(kept.ledger->time, row.time);
  EXPECT_EQ(kept.ledger->time.offsetFromUtc(), row.time.offsetFromUtc());
  EXPECT_EQ(std::tie(kept.ledger->minutes, kept.ledger->credit, kept.ledger->used,
                     kept.ledger->claimed, kept.ledger->source, kept.ledger->actor),
            std::tie(row.minutes, row.credit, row.used, row.claimed, row.source, row.actor));
  EXPECT_FALSE(read[1].change.ledger || read[1].change.credit || read[1].change.lane);
  EXPECT_THROW(Spool{path}, std::runtime_error) << "in use";
}

// Its credit is another than the one that the changes were made from.
TEST_F(StoreThreadTest, WhatWasSpooledIsTakenFromTheCreditOfABackupThatWasPutInTheStoresPlace) {
  const QString spool = folder_.filePath(QStringLiteral("spool"));
  const QString store = folder_.filePath(QStringLiteral("store"));
  const QString backup = folder_.filePath(QStringLiteral("backup"));
  const auto open = [&] {
    return std::make_unique<StoreThread>(OpenStore(store), StoreThread::Options{spool, kBoot, {}});
  };
  thread_ = open();
  (void)thread_->Load();
  StoreThread::News before;
  EXPECT_EQ(thread_->ApplyNow({Setting(kAnnasGame, 0, 0, 10)}, &before).status, ApplyStatus::Done);
  thread_.reset();
  EXPECT_TRUE(QFile::copy(store, backup));
  thread_ = open();
  (void)thread_->Load();
  (void)thread_->Submit(Use(kAnnasGame, 3, 10));
  thread_.reset();
  QString error;
  EXPECT_TRUE(Spool(spool).Append({{2, Use(kAnnasGame, 1, 7)}, {3, Use(kBensChat, 1, 1)}}, &error));
  EXPECT_TRUE(QFile::remove(store) && QFile::copy(backup, store));
  thread_ = open();
  const StoreContents contents = thread_->Load();
  ASSERT_EQ(contents.credit.size(), 1u) << "none for an account that is not there";
  EXPECT_EQ(contents.credit[0].minutes, 9);
  EXPECT_EQ(contents.usage.size(), 2u);
  thread_.reset();
  EXPECT_EQ(Spool(spool).Count(), 0u);
}

TEST_F(StoreThreadTest, OnlyWhatIsDamagedOfASpoolIsLeftOut) {
  const QString path = folder_.filePath(QStringLiteral("spool"));
  const QString damaged = path + QStringLiteral(".damaged");
  QString error;
  qint64 whole = 0;
  {
    Spool spool(path);
    EXPECT_TRUE(spool.Append({{1, StoreChange()}, {2, StoreChange()}}, &error));
    whole = QFileInfo(path).size();
    EXPECT_TRUE(spool.Append({{3, StoreChange()}}, &error));
  }
  EXPECT_TRUE(QDir().mkdir(damaged)) << "no copy can be made";
  EXPECT_TRUE(QFile::resize(path, whole + 9)) << "killed while it wrote";
  EXPECT_EQ(Spool(path).Count(), 2u);
  EXPECT_EQ(QFileInfo(path).size(), whole);

  QFile file(path);
  EXPECT_TRUE(file.open(QIODevice::ReadWrite) && file.seek(whole - 1) && file.putChar('x'));
  file.close();
  EXPECT_THROW(Spool{path}, std::runtime_error);
  EXPECT_TRUE(QDir().rmdir(damaged));
  EXPECT_EQ(Spool(path).Count(), 1u);
  EXPECT_EQ(QFileInfo(path).size() + QFileInfo(damaged).size(), whole);

  EXPECT_TRUE(file.open(QIODevice::ReadWrite) && file.putChar('x'));
  file.close();
  EXPECT_THROW(Spool{path}, std::runtime_error) << "whose it is cannot be read";
  EXPECT_EQ(QFileInfo(path).size() + QFileInfo(damaged).size(), whole) << "nothing is overwritten";
}

}  // namespace
}  // namespace vardell::server
