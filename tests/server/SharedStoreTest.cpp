// A Household over a store that others change, too.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>

#include "server/Household.h"
#include "server/Store.h"
#include "server/StoreThread.h"
#include "tests/support/Waiting.h"

namespace vardell::server {
namespace {

using namespace std::chrono_literals;

const QString kAnna = QStringLiteral("anna");
const QString kGame = QStringLiteral("org.example.game");
const QDate kDay(2009, 3, 5);

// What the database does, as the test says.
struct Database {
  std::mutex mutex;
  std::function<ApplyResult(const std::vector<StoreChange>&)> apply;
  StoreContents contents;
  StoreNews news;
  bool isThere = true;
  std::uint64_t last = 0;

  template <typename Action>
  auto Locked(Action action) {
    const std::lock_guard lock(mutex);
    return action();
  }
};

class SharedStore : public Store {
 public:
  explicit SharedStore(Database& database) : database_(database) {}

  void SetServerId(const QString&) override {}
  bool IsShared() const override { return true; }
  QString Description() const override { return QStringLiteral("shared"); }
  StoreContents Load(const QString&) override {
    return database_.Locked([&] { return database_.contents; });
  }
  std::uint64_t LastNumber() override {
    return database_.Locked([&] { return database_.last; });
  }
  ApplyResult Apply(const std::vector<StoreChange>& changes, const QString&,
                    std::uint64_t lastNumber) override {
    return database_.Locked([&]() -> ApplyResult {
      if (!database_.isThere) return {ApplyStatus::Failed, QStringLiteral("away"), {}};
      if (lastNumber != 0) database_.last = lastNumber;
      return database_.apply ? database_.apply(changes) : ApplyResult();
    });
  }
  StoreNews News() override {
    return database_.Locked([&] { return std::exchange(database_.news, {}); });
  }
  bool Recover(QString* error) override {
    *error = QStringLiteral("away");
    return database_.Locked([&] { return database_.isThere; });
  }
  bool WriteAhead(const std::vector<LedgerRow>&, QString*) override { return true; }
  ApplyResult ApplyLast(const std::vector<StoreChange>&, const QString&) override { return {}; }
  bool HasUnfinishedRestore() const override { return false; }
  bool ForgetUnfinished(int, QString*) override { return true; }
  std::optional<AdjustmentRow> Adjustment(const QString&) override { return std::nullopt; }
  std::vector<LedgerRow> Ledger(std::int64_t, const QString&, const QString&, int, bool) override {
    return {};
  }

 private:
  Database& database_;
};

LimitsEntry Limit() {
  LimitsEntry entry;
  entry.user = kAnna;
  entry.identifier = kGame;
  entry.limits.enabled = 1;
  entry.revision = 1;
  return entry;
}

class SharedStoreTest : public testing::Test {
 protected:
  void Open() {
    Clocks clocks;
    clocks.sinceBoot = [this] { return sinceBoot_; };
    clocks.bootId = QStringLiteral("boot");
    clocks.now = [] { return QDateTime(kDay, QTime(18, 0), Qt::UTC); };
    clocks.isSet = [] { return true; };
    HouseholdHooks hooks;
    hooks.log = [this](const LogEvent& event) {
      if (event.name && std::string_view(event.name) == "store-back") isBack_ = true;
    };
    hooks.storeHasNews = [this] {
      if (takesAtOnce_) (void)household_->TakeStored();
    };
    household_ =
        std::make_unique<Household>(std::make_unique<SharedStore>(database_), clocks, hooks);
  }
  void Has(std::int64_t minutes, std::uint64_t version, std::int64_t used = 0) {
    database_.Locked([&] {
      database_.contents = {};
      database_.contents.limits = {Limit()};
      database_.contents.credit = {{kAnna, kGame, minutes, false, version}};
      if (used != 0) database_.contents.usage = {{kAnna, kGame, kDay, used}};
    });
  }
  // A report of one more minute.
  void Use(std::int32_t claimed) {
    sinceBoot_ += 60s;
    household_->CreditReport(connection_, kAnna, kGame, claimed);
  }
  std::int64_t Used() {
    const auto days = household_->Usage(kAnna, kGame);
    return days && days->count(kDay) != 0 ? days->at(kDay) : 0;
  }

  std::atomic<bool> isBack_ = false;
  // On the store's thread, as soon as there is something; nobody else uses the Household then.
  std::atomic<bool> takesAtOnce_ = false;
  const Actor root_{0, QStringLiteral("uid 0 (root)")};
  const AgentConnection connection_{1, QStringLiteral("192.0.2.1"), {}};
  std::chrono::milliseconds sinceBoot_{0};
  Database database_;
  std::unique_ptr<Household> household_;
};

TEST_F(SharedStoreTest, ALimitThatAnotherServerRemovesBeforeItsTopUpIsAnsweredAsItWas) {
  Has(5, 2);
  Open();
  int calls = 0;
  database_.apply = [&](const std::vector<StoreChange>&) -> ApplyResult {
    if (++calls == 1) return {ApplyStatus::Done, {}, {{kAnna, kGame, 5, false, 3}}};
    database_.news.contents.removed = {{kAnna, kGame, 2}};
    return {ApplyStatus::Conflict, {}, {}};
  };
  const QVariantMap keys{{QStringLiteral("AutoUpdateValue"), 30},
                         {QStringLiteral("NextAutoUpdate"), 1.0}};
  const AdminResult result = household_->ChangeLimits(root_, kAnna, kGame, keys, 1);
  EXPECT_EQ(calls, 2);
  ASSERT_EQ(result.status, AdminStatus::Ok) << qPrintable(result.message);
  EXPECT_EQ(result.entry->revision, 2u);
  EXPECT_FALSE(household_->Limits(kAnna, kGame).has_value());
}

TEST_F(SharedStoreTest, ALimitThatAnotherServerMakesAnewBeginsAnew) {
  for (const bool isEverything : {false, true}) {
    SCOPED_TRACE(isEverything);
    Has(5, 2);
    Open();
    household_->ApplicationStarted(connection_, kAnna, kGame);
    (void)household_->FetchLimits(connection_, kAnna, kGame);
    household_->Settle();
    Has(10, 4);
    database_.Locked([&] {
      database_.contents.limits[0].revision = 2;
      database_.contents.removed = {{kAnna, kGame, 1}};
      database_.news.everything = isEverything;
      if (!isEverything) database_.news.contents = database_.contents;
    });
    EXPECT_TRUE(test::WaitUntil([&] {
      (void)household_->TakeStored();
      return household_->Limits(kAnna, kGame)->credit == 10;
    }));
    sinceBoot_ += 600s;
    Use(0);
    EXPECT_EQ(household_->Limits(kAnna, kGame)->credit, 9) << "of nothing handed, one minute";
  }
}

TEST_F(SharedStoreTest, ADatabaseThatIsPutBackIsBelievedThoughItsVersionsAreLower) {
  Has(5, 900);
  Open();
  Has(7, 20);
  database_.Locked([&] { database_.news.everything = true; });
  EXPECT_TRUE(test::WaitUntil([&] {
    (void)household_->TakeStored();
    return household_->Limits(kAnna, kGame)->credit == 7;
  }));
  std::optional<std::uint64_t> basedOn;
  database_.apply = [&](const std::vector<StoreChange>& changes) -> ApplyResult {
    basedOn = changes.at(0).basedOn;
    return {};
  };
  EXPECT_EQ(household_->SetCredit(root_, kAnna, kGame, 9, QStringLiteral("id"), {}).status,
            AdminStatus::Ok);
  EXPECT_EQ(basedOn, 20u);
}

TEST_F(SharedStoreTest, UseThatIsStoredBehindALoadIsNotForgotten) {
  Has(100, 2);
  Open();
  Use(99);
  household_->Settle();
  database_.Locked([&] { database_.isThere = false; });
  Use(98);
  EXPECT_TRUE(test::WaitUntil([&] { return household_->Facts().writing.isAway; }));
  Has(99, 3, 1);
  takesAtOnce_ = true;
  database_.Locked([&] {
    database_.apply = [&](const std::vector<StoreChange>&) -> ApplyResult {
      return {ApplyStatus::Done, {}, {{kAnna, kGame, 98, false, 4}}};
    };
    database_.isThere = true;
  });
  EXPECT_TRUE(test::WaitUntil([&] { return isBack_.load(); }));
  takesAtOnce_ = false;
  EXPECT_EQ(household_->Limits(kAnna, kGame)->credit, 98);
  EXPECT_EQ(Used(), 2);
}

}  // namespace
}  // namespace vardell::server
