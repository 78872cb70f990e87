// What stores of both kinds do alike.
#include "server/Sqlite.h"
#include "server/TopUpMemory.h"
#include "tests/server/StoreFixture.h"

namespace vardell::server {
namespace {

class StoreContractTest : public StoreTestBase, public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const bool isShared = GetParam() == std::string("PostgreSQL");
    location_ = isShared ? NewStore() : folder_.filePath(QStringLiteral("store.sqlite"));
    Open();
  }
  void Open() {
    store_.reset();
    store_ = IsPostgresLocation(location_) ? std::make_unique<PostgresStore>(location_, kUnhurried)
                                           : OpenStore(location_);
    store_->SetServerId(QStringLiteral("one"));
    contents_ = store_->Load(kBoot);
  }
  void Reload() { contents_ = store_->Load(kBoot); }
  ApplyStatus Apply(const std::vector<StoreChange>& changes, std::uint64_t last = 0) {
    const ApplyResult result = store_->Apply(changes, kBoot, last);
    EXPECT_EQ(result.error.isEmpty(), result.status == ApplyStatus::Done)
        << qPrintable(result.error);
    Reload();
    return result.status;
  }
  CreditRow Credit(const Name& name) const {
    for (const CreditRow& row : contents_.credit) {
      if (Name(row.user, row.identifier) == name) return row;
    }
    return {};
  }
  ApplyStatus Set(const Name& name, std::int64_t minutes, std::uint64_t revision = 1) {
    const CreditRow now = Credit(name);
    return Apply({Setting(name, now.version, now.minutes, minutes, revision)});
  }
  std::vector<LedgerRow> Ledger(std::int64_t after = 0, const Name& name = {}, int limit = 1000) {
    return store_->Ledger(after, name.first, name.second, limit);
  }

  QTemporaryDir folder_;
  QString location_;
  std::unique_ptr<Store> store_;
  StoreContents contents_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, StoreContractTest, testing::Values("SQLite", "PostgreSQL"),
                         [](const auto& kind) { return std::string(kind.param); });

TEST_P(StoreContractTest, KeepsEverythingAsItWasWritten) {
  StoreChange made = Setting(kAnnasGame, 0, 0, 40, 7);
  made.limits->limits.weekDayStart = 480;
  made.limits->limits.topUpCoefficient = -1;
  made.limits->options.unlimited = true;
  made.limits->options.parallel = Parallel::Union;
  made.limits->options.scope = Scope::UserAtHost;
  made.limits->options.cap = 90;
  made.limits->options.rollOver = true;
  made.limits->options.schedule.emplace();
  TopUpMemory memory;
  memory.lastDate = QDate(2026, 3, 4);
  memory.had = {{QDate(2026, 3, 1), QDate(2026, 3, 4)}};
  made.topUp = {kAnnasGame.first, kAnnasGame.second, 257922000.5, memory};
  made.lane = {kAnnasGame.first, kAnnasGame.second, QStringLiteral("::1"),
               std::chrono::milliseconds(61)};
  made.ledger->used = 3;
  made.ledger->claimed = -1;
  made.ledger->day = QDate(2026, 2, 28);
  made.adjustment = AdjustmentRow{QStringLiteral("a'1"), QByteArray("\0\xff'\\x", 5), -12};
  ASSERT_EQ(Apply({made}, 5), ApplyStatus::Done);
  Open();
  ASSERT_EQ(contents_.limits.size(), 1u);
  const LimitsEntry& entry = contents_.limits[0];
  made.limits->limits.nextTopUpTime = 257922000.5;
  EXPECT_EQ(entry.limits, made.limits->limits);
  EXPECT_EQ(entry.options, made.limits->options);
  EXPECT_EQ(entry.revision, 7u);
  EXPECT_EQ(contents_.topUps.at(0).memory, memory);
  EXPECT_EQ(contents_.lanes.at(0).paidUntil.count(), 61);
  EXPECT_EQ(contents_.usage.at(0).day, QDate(2026, 2, 28));
  EXPECT_EQ(store_->Adjustment(QStringLiteral("a'1"))->digest, made.adjustment->digest);
  EXPECT_EQ(store_->Adjustment(QStringLiteral("a'1"))->added, -12);
  EXPECT_FALSE(store_->Adjustment(QStringLiteral("another")));
  EXPECT_EQ(store_->LastNumber(), 5u);
  EXPECT_TRUE(store_->Load(QStringLiteral("another boot")).lanes.empty());
  const LedgerRow row = Ledger().at(0);
  EXPECT_EQ(row.time, made.ledger->time);
  EXPECT_EQ(row.time.offsetFromUtc(), 3600);
  EXPECT_EQ(row.day, made.ledger->day);
  EXPECT_EQ(row.claimed, made.ledger->claimed);
  EXPECT_EQ(row.reason, made.ledger->reason);
  EXPECT_EQ(row.minutes, 40);
}

TEST_P(StoreContractTest, AgentsUseTakesCreditAndCountsByDay) {
  Set(kAnnasGame, 3);
  std::vector<StoreChange> changes = {Use(kAnnasGame, 1, 3), Use(kAnnasGame, 2, 2),
                                      Use(kAnnasGame, 1, 0, "grace")};
  changes[2].ledger->day = QDate(2026, 3, 5);
  StoreChange idle;
  idle.ledger = RowOf(kAnnasGame, "report", 0, 0);
  changes.push_back(idle);
  ASSERT_EQ(Apply(changes, 17), ApplyStatus::Done);
  EXPECT_EQ(Credit(kAnnasGame).minutes, 0);
  EXPECT_TRUE(Credit(kAnnasGame).spent);
  EXPECT_EQ(store_->LastNumber(), 17u);
  EXPECT_EQ(contents_.lanes.at(0).paidUntil, std::chrono::minutes(1));
  EXPECT_EQ(Lines(contents_).filter(QStringLiteral("usage")),
            QStringList({QStringLiteral("usage anna org.example.game 2026-03-04 3"),
                         QStringLiteral("usage anna org.example.game 2026-03-05 1")}));
  std::vector<std::int64_t> minutes;
  for (const LedgerRow& row : Ledger()) minutes.push_back(row.minutes);
  EXPECT_EQ(minutes, (std::vector<std::int64_t>{3, -1, -2, 0, 0}));
}

TEST_P(StoreContractTest, TheLedgerIsReadInPartsAndByName) {
  Set(kAnnasGame, 3);
  Set(kBensChat, 5);
  Set(kAnnasGame, 4, 2);
  const std::vector<LedgerRow> all = Ledger();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_LT(all[0].id, all[1].id);
  EXPECT_EQ(Ledger(all[0].id).size(), 2u);
  EXPECT_EQ(Ledger(0, {}, 2).size(), 2u);
  EXPECT_EQ(Ledger(0, kAnnasGame).size(), 2u);
  EXPECT_EQ(Ledger(0, {kAnnasGame.first, {}}).size(), 2u);
  EXPECT_EQ(Ledger(0, {{}, kBensChat.second}).size(), 1u);
  EXPECT_EQ(Ledger(0, {QStringLiteral("x' OR '1'='1"), {}}).size(), 0u);
  EXPECT_EQ(Ledger(0, {QString(QChar(0)), QString(QChar(0))}).size(), 0u);
}

TEST_P(StoreContractTest, RemovedLimitsLeaveUseAndTheLedger) {
  Set(kAnnasGame, 9);
  Apply({Use(kAnnasGame, 4, 9)});
  StoreChange topUp;
  topUp.basedOn = Credit(kAnnasGame).version;
  topUp.topUp = {kAnnasGame.first, kAnnasGame.second, 5, {}};
  Apply({topUp});
  ASSERT_EQ(contents_.topUps.size(), 1u);
  ASSERT_EQ(Apply({Removing(kAnnasGame, Credit(kAnnasGame).version, 5, 3)}), ApplyStatus::Done);
  EXPECT_EQ(Lines(contents_),
            QStringList({QStringLiteral("removed anna org.example.game 3"),
                         QStringLiteral("usage anna org.example.game 2026-03-04 4")}));
  ASSERT_EQ(Set(kAnnasGame, 2, 4), ApplyStatus::Done);
  EXPECT_EQ(Credit(kAnnasGame).minutes, 2);
  EXPECT_EQ(contents_.removed.size(), 1u);
  EXPECT_TRUE(contents_.topUps.empty());
  EXPECT_EQ(Ledger().size(), 4u);
}

TEST_P(StoreContractTest, WhatCannotBeStoredLeavesNothingBehind) {
  Set(kAnnasGame, 5);
  StoreChange bad = Setting(kBensChat, 0, 0, 12345);
  ASSERT_NE(Apply({Setting(kAnnasGame, Credit(kAnnasGame).version, 5, 8), bad}, 9),
            ApplyStatus::Done);
  EXPECT_EQ(Credit(kAnnasGame).minutes, 5);
  EXPECT_EQ(store_->LastNumber(), 0u);
  EXPECT_EQ(Ledger().size(), 1u);
  EXPECT_EQ(Set(kAnnasGame, 6), ApplyStatus::Done) << "and the store goes on";
}

TEST_P(StoreContractTest, HistoryAndTheValueThatMeansSpentCannotBeWritten) {
  Set(kAnnasGame, 5);
  store_.reset();
  for (const char* sql :
       {"UPDATE ledger SET minutes = 0", "DELETE FROM ledger", "UPDATE audit SET actor = ''",
        "DELETE FROM audit", "UPDATE credit SET minutes = 12345"}) {
    const auto execute = [&] {
      if (IsPostgresLocation(location_)) return Sql(location_, QLatin1String(sql));
      SqliteDatabase(location_).Execute(sql);
    };
    EXPECT_THROW(execute(), std::runtime_error) << sql;
  }
}

TEST_P(StoreContractTest, NoTextMakesABatchFail) {
  const QChar texts[] = {QChar(0), QChar(0xd800), QChar(0xffff), QLatin1Char('\\')};
  for (const QChar text : texts) {
    StoreChange change = Use({text + QStringLiteral("}{\","), QStringLiteral("NULL")}, 1, 0);
    change.ledger->time = QDateTime();
    change.ledger->reason = text;
    EXPECT_EQ(store_->Apply({change}, kBoot, 1).status, ApplyStatus::Done) << int{text.unicode()};
  }
}

TEST_P(StoreContractTest, ARestoreCountsFromItsLastTransactionOn) {
  Set(kAnnasGame, 5);
  QString error;
  while (store_->HasUnfinishedRestore()) ASSERT_TRUE(store_->ForgetUnfinished(100, &error));
  const auto writeAhead = [&] {
    for (int i = 0; i < 3; ++i) {
      const std::vector<LedgerRow> rows(10, RowOf(kBensChat, "restore", 0, 0, 2));
      ASSERT_TRUE(store_->WriteAhead(rows, &error)) << qPrintable(error);
    }
  };
  writeAhead();
  EXPECT_TRUE(store_->HasUnfinishedRestore());
  EXPECT_EQ(Ledger().size(), 1u);
  ASSERT_TRUE(store_->ForgetUnfinished(7, &error));
  EXPECT_TRUE(store_->HasUnfinishedRestore());
  while (store_->HasUnfinishedRestore()) ASSERT_TRUE(store_->ForgetUnfinished(7, &error));
  writeAhead();
  Open();
  EXPECT_FALSE(store_->HasUnfinishedRestore()) << "forgotten by the next start";
  EXPECT_TRUE(contents_.usage.empty());

  writeAhead();
  ASSERT_EQ(store_->Apply({Use(kAnnasGame, 1, 5)}, kBoot, 0).status, ApplyStatus::Done);
  const ApplyResult last = store_->ApplyLast({Setting(kAnnasGame, 99, 4, 7, 2)}, kBoot);
  ASSERT_EQ(last.status, ApplyStatus::Done) << qPrintable(last.error);
  EXPECT_FALSE(store_->HasUnfinishedRestore());
  Open();
  EXPECT_EQ(Credit(kAnnasGame).minutes, 7);
  EXPECT_EQ(Lines(contents_).filter(QStringLiteral("usage")),
            QStringList({QStringLiteral("usage anna org.example.game 2026-03-04 1"),
                         QStringLiteral("usage ben org.example.chat 2026-03-04 60")}));
  EXPECT_EQ(Ledger().size(), 33u);
}

}  // namespace
}  // namespace vardell::server
