#include "server/PostgresStore.h"

#include <algorithm>
#include <limits>

#include "server/PostgresRows.h"
#include "server/PostgresSchema.h"

namespace vardell::server {
namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

constexpr milliseconds kConnecting = 200ms;  // of Recover's half second
constexpr milliseconds kChecking = 200ms;    // likewise
constexpr milliseconds kReadingLedger = 500ms;
constexpr milliseconds kPreparing = 10s;
constexpr milliseconds kLoading = 60s;

// More of them are loaded anew.
constexpr std::int64_t kMostLedgerNews = 200000;

constexpr char kBegin[] = "BEGIN";
constexpr char kBeginSnapshot[] = "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY";
constexpr char kCommit[] = "COMMIT";
constexpr char kSetLimits[] =
    "SELECT set_config('statement_timeout', $1, true), set_config('lock_timeout', $2, true)";
// While what was read is looked at.
constexpr char kStayIdle[] = "SET LOCAL idle_in_transaction_session_timeout = '60s'";
constexpr char kLock[] = "SELECT 1::bigint FROM pg_advisory_xact_lock($1)";
constexpr char kCount[] = "UPDATE state SET version = version + 1 RETURNING version, epoch";
constexpr char kUsedIds[] = "SELECT id FROM adjustments WHERE id = ANY($1::text[])";
constexpr char kWriteNumber[] =
    "INSERT INTO numbers VALUES ($1, $2) ON CONFLICT (server) DO UPDATE SET last = excluded.last";
constexpr char kReadNumber[] = "SELECT last FROM numbers WHERE server = $1";

constexpr char kState[] =
    "SELECT version, epoch, coalesce((SELECT max(id) FROM ledger), 0) FROM state";
constexpr char kUnbalanced[] =
    "SELECT \"user\", identifier FROM ("
    "  SELECT \"user\", identifier, sum(minutes) AS minutes FROM ledger GROUP BY 1, 2 UNION ALL"
    "  SELECT \"user\", identifier, -minutes FROM credit) AS sums "
    "GROUP BY 1, 2 HAVING sum(minutes) <> 0 LIMIT 1";
constexpr char kAllAccounts[] = "SELECT " VARDELL_ACCOUNT_COLUMNS;
constexpr char kAllRemoved[] = "SELECT \"user\", identifier, revision FROM removed_limits";
constexpr char kLanes[] =
    "SELECT \"user\", identifier, host, paid_until_ms FROM lanes "
    "WHERE server = $1 AND boot_id = $2";
constexpr char kAllUsage[] =
    "SELECT \"user\", identifier, day::text, minutes FROM usage WHERE minutes <> 0";

#define VARDELL_UNTOLD "(\"user\", identifier) IN (SELECT * FROM unnest($1::text[], $2::text[]))"
constexpr char kNewAccounts[] =
    "SELECT " VARDELL_ACCOUNT_COLUMNS "WHERE c.version > $1 AND c.version <> ALL($2::bigint[])";
constexpr char kUntoldAccounts[] = "SELECT " VARDELL_ACCOUNT_COLUMNS "WHERE " VARDELL_UNTOLD;
constexpr char kNewRemoved[] =
    "SELECT \"user\", identifier, revision FROM removed_limits "
    "WHERE version > $1 AND version <> ALL($2::bigint[])";
constexpr char kUntoldRemoved[] =
    "SELECT \"user\", identifier, revision FROM removed_limits WHERE " VARDELL_UNTOLD;
constexpr char kNewUsage[] =
    "SELECT \"user\", identifier, day::text, sum(used)::bigint FROM ledger "
    "WHERE id > $1 AND server <> $2 AND used <> 0 GROUP BY \"user\", identifier, day";

constexpr char kForgetOldRows[] =
    "DELETE FROM restore_rows WHERE server = $1 OR written < now() - interval '1 day'";
constexpr char kAdjustment[] = "SELECT digest, added FROM adjustments WHERE id = $1";
constexpr char kLedgerQuery[] =
    "SELECT " VARDELL_LEDGER_COLUMNS
    "WHERE id > $1 AND $2 = $2 AND ($3 = '' OR identifier = $3) ORDER BY id LIMIT $4";
// The ids come from the index alone; whoever has few rows, or none, has them at once.
constexpr char kLedgerOfUser[] =
    "SELECT " VARDELL_LEDGER_COLUMNS
    "WHERE id IN (SELECT id FROM ledger WHERE \"user\" = $2 AND id > $1) AND $3 = $3 "
    "ORDER BY id LIMIT $4";
// By the index; the parameters are the same.
constexpr char kLedgerOfOne[] =
    "SELECT " VARDELL_LEDGER_COLUMNS
    "WHERE id > $1 AND \"user\" = $2 AND identifier = $3 ORDER BY id LIMIT $4";

// What the database itself may take: a little less, so that it says so in time.
PostgresCall LimitsOf(milliseconds most) {
  const auto text = [](milliseconds time) {
    return PostgresParameter(QString::number(time.count()));
  };
  return {kSetLimits, {text(most * 4 / 5), text(std::min(most * 3 / 5, milliseconds(5s)))}};
}

PostgresCall Lock() {
  return {kLock, {PostgresParameter(kPostgresLock)}};
}

PostgresTable IdsOf(const std::vector<StoreChange>& changes) {
  PostgresTable ids{PostgresType::Text};
  for (const StoreChange& change : changes) {
    if (change.adjustment) ids.Add(change.adjustment->id);
  }
  return ids;
}

bool HasIdTwice(const std::vector<StoreChange>& changes) {
  std::set<QString> ids;
  return std::any_of(changes.begin(), changes.end(), [&](const StoreChange& change) {
    return change.adjustment && !ids.insert(change.adjustment->id).second;
  });
}

std::runtime_error Unbalanced(const QString& where, const PostgresResult& rows) {
  return std::runtime_error(
      QStringLiteral("the store, %1, is damaged (the credit of %2, %3, is not the sum of its "
                     "ledger); restore a backup of the database")
          .arg(where, rows.Text(0, 0), rows.Text(0, 1))
          .toStdString());
}

}  // namespace

PostgresStore::PostgresStore(const QString& location, milliseconds ordinary)
    : address_(ReadPostgresAddress(location)), ordinary_(ordinary) {
  Guarded([this] {
    PostgresConnecting connecting(address_);
    connection_ = connecting.Wait(6s);
    if (!connection_) throw PostgresError("no answer in time", {});
    PreparePostgres(*connection_, Description(), In(kPreparing));
  });
}

PostgresStore::~PostgresStore() = default;

milliseconds PostgresStore::TimeFor(std::size_t changes) const {
  constexpr std::size_t usual = 1000;
  const std::size_t more = changes > usual ? changes - usual : 0;
  return std::min(ordinary_ + milliseconds(more / 2), kRestoring);
}

PostgresConnection& PostgresStore::Connection() {
  if (!connection_) throw PostgresError("the connection was lost", {});
  return *connection_;
}

void PostgresStore::Guarded(const std::function<void()>& action) {
  const auto cleanUp = [this] {
    if (connection_) connection_->RollBack();
    if (connection_ && !connection_->IsOpen()) connection_.reset();
  };
  try {
    action();
  } catch (const PostgresError& error) {
    cleanUp();
    const std::string line = WhatToDo(error, address_).toStdString();
    if (IsPassing(error)) throw StoreAway(line);
    throw std::runtime_error(line);
  } catch (...) {
    cleanUp();
    throw;
  }
}

std::vector<PostgresResult> PostgresStore::Transaction(const char* begin,
                                                       std::vector<PostgresCall> calls,
                                                       milliseconds most) {
  calls.insert(calls.begin(), {PostgresCall{begin}, LimitsOf(most)});
  calls.push_back({kCommit});
  std::vector<PostgresResult> results = Connection().Exchange(calls, In(most));
  results.erase(results.begin(), results.begin() + 2);
  return results;
}

PostgresResult PostgresStore::Query(PostgresCall call, milliseconds most) {
  return std::move(Transaction(kBegin, {std::move(call)}, most).at(0));
}

StoreContents PostgresStore::Load(const QString& bootId) {
  StoreContents contents;
  Guarded([&] {
    const QByteArray server = PostgresParameter(serverId_);
    (void)Query({kForgetOldRows, {server}}, kLoading);
    mayHaveOldRestore_ = false;
    const PostgresDeadline deadline = In(kLoading);
    PostgresConnection& connection = Connection();
    const auto begun = connection.Exchange(
        {{kBeginSnapshot}, LimitsOf(kLoading), {kStayIdle}, {kState}, {kUnbalanced}}, deadline);
    const PostgresResult& state = begun.at(3);
    if (begun.at(4).Rows() != 0) throw Unbalanced(Description(), begun.at(4));
    ReadAccounts(connection.Exchange({{kAllAccounts}}, deadline).at(0), Description(), &contents);
    ReadRemoved(connection.Exchange({{kAllRemoved}}, deadline).at(0), &contents);
    ReadUsage(connection.Exchange({{kAllUsage}}, deadline).at(0), &contents);
    const auto rest =
        connection.Exchange({{kLanes, {server, PostgresParameter(bootId)}}, {kCommit}}, deadline);
    const PostgresResult& lanes = rest.at(0);
    for (int row = 0; row < lanes.Rows(); ++row) {
      contents.lanes.push_back({lanes.Text(row, 0), lanes.Text(row, 1), lanes.Text(row, 2),
                                milliseconds(lanes.Integer(row, 3))});
    }
    seenVersion_ = state.Integer(0, 0);
    seenEpoch_ = state.Integer(0, 1);
    seenLedger_ = state.Integer(0, 2);
    ownVersions_.clear();
    untold_.clear();
  });
  return contents;
}

std::uint64_t PostgresStore::LastNumber() {
  std::uint64_t last = 0;
  Guarded([&] {
    const auto results =
        Transaction(kBegin, {Lock(), {kReadNumber, {PostgresParameter(serverId_)}}}, ordinary_);
    const PostgresResult& number = results.at(1);
    if (number.Rows() != 0) last = static_cast<std::uint64_t>(number.Integer(0, 0));
  });
  return last;
}

PostgresStore::Found PostgresStore::Begin(const std::vector<StoreChange>& changes,
                                          milliseconds most, PostgresDeadline deadline) {
  const auto results = Connection().Exchange({{kBegin},
                                              LimitsOf(most),
                                              Lock(),
                                              {kAccountsQuery, NameParameters(NamesOf(changes))},
                                              {kUsedIds, IdsOf(changes).Parameters()},
                                              {kCount}},
                                             deadline);
  Found found;
  found.accounts = ReadStoredAccounts(results.at(3));
  found.isIdUsed = results.at(4).Rows() != 0 || HasIdTwice(changes);
  found.version = results.at(5).Integer(0, 0);
  found.epoch = results.at(5).Integer(0, 1);
  return found;
}

bool PostgresStore::IsUntold(std::uint64_t version) const {
  const auto number = static_cast<std::int64_t>(version);
  return number > seenVersion_ && ownVersions_.count(number) == 0;
}

void PostgresStore::WroteVersion(std::int64_t version) {
  ownVersions_.insert(version);
  while (!ownVersions_.empty() && *ownVersions_.begin() == seenVersion_ + 1) {
    ownVersions_.erase(ownVersions_.begin());
    ++seenVersion_;
  }
}

std::vector<CreditRow> PostgresStore::After(const PostgresBatch& batch, const Found& found) const {
  std::vector<CreditRow> rows;
  for (const auto& [name, account] : batch.accounts) {
    const bool isWritten = batch.touched.count(name) != 0;
    std::uint64_t version = isWritten ? static_cast<std::uint64_t>(found.version) : account.version;
    if (untold_.count(name) != 0 || (!isWritten && IsUntold(version))) version = kUntoldVersion;
    rows.push_back({name.first, name.second, account.minutes, account.spent, version});
  }
  return rows;
}

void PostgresStore::Commit(std::vector<PostgresCall> calls, const Found& found,
                           const PostgresBatch& batch, PostgresDeadline deadline) {
  for (const auto& [name, account] : found.accounts) {
    const bool isOverwritten = batch.touched.count(name) != 0 || batch.cleared.count(name) != 0;
    if (isOverwritten && IsUntold(account.version)) untold_.insert(name);
  }
  calls.push_back({kCommit});
  (void)Connection().Exchange(calls, deadline);
  WroteVersion(found.version);
}

// News is to tell of these accounts, whether or not it did already.
ApplyResult PostgresStore::Conflict(const std::set<AccountName>& names, const QString& why) {
  untold_.insert(names.begin(), names.end());
  connection_->RollBack();
  return {ApplyStatus::Conflict, why, {}};
}

ApplyResult PostgresStore::WriteChanges(const std::vector<StoreChange>& changes,
                                        const QString& bootId, std::uint64_t lastNumber) {
  const milliseconds most = TimeFor(changes.size());
  const PostgresDeadline deadline = In(most);
  const Found found = Begin(changes, most, deadline);
  const std::set<AccountName> conflicts = ConflictsOf(changes, found.accounts);
  if (!conflicts.empty()) {
    return Conflict(conflicts, QStringLiteral("another Server has changed it meanwhile"));
  }
  if (found.isIdUsed) {
    return Conflict({}, QStringLiteral("an adjustment with this id was stored meanwhile"));
  }
  const auto batch = DecideBatch(changes, BatchKind::Ordinary, found.accounts);
  if (!batch) {
    connection_->RollBack();
    return Failed(
        QStringLiteral("a change whose credit would not be the sum of its ledger was not "
                       "stored; report this as an error of vardell-server"));
  }
  auto calls = CallsFor(*batch, {serverId_, bootId, found.version});
  if (lastNumber != 0) {
    const auto number = static_cast<std::int64_t>(lastNumber);
    calls.push_back({kWriteNumber, {PostgresParameter(serverId_), PostgresParameter(number)}});
  }
  Commit(std::move(calls), found, *batch, deadline);
  return {ApplyStatus::Done, {}, After(*batch, found)};
}

ApplyResult PostgresStore::Apply(const std::vector<StoreChange>& changes, const QString& bootId,
                                 std::uint64_t lastNumber) {
  ApplyResult result;
  try {
    Guarded([&] { result = WriteChanges(changes, bootId, lastNumber); });
  } catch (const std::runtime_error& error) {
    return Failed(QString::fromUtf8(error.what()));
  }
  return result;
}

StoreNews PostgresStore::ReadNews() {
  const PostgresResult state = Query({kState}, ordinary_);
  const std::int64_t version = state.Integer(0, 0);
  StoreNews news;
  news.everything = seenVersion_ == 0 || state.Integer(0, 1) != seenEpoch_ ||
                    version < seenVersion_ || state.Integer(0, 2) - seenLedger_ > kMostLedgerNews;
  if (version == seenVersion_ && !news.everything) seenLedger_ = state.Integer(0, 2);
  if (news.everything || (version == seenVersion_ && untold_.empty())) return news;

  PostgresTable own{PostgresType::Integer};
  for (const std::int64_t one : ownVersions_) own.Add(one);
  const QByteArray seen = PostgresParameter(seenVersion_);
  const QByteArray owned = own.Parameters().at(0);
  const auto results =
      Transaction(kBeginSnapshot,
                  {{kState},
                   {kNewAccounts, {seen, owned}},
                   {kNewRemoved, {seen, owned}},
                   {kUntoldAccounts, NameParameters(untold_)},
                   {kUntoldRemoved, NameParameters(untold_)},
                   {kNewUsage, {PostgresParameter(seenLedger_), PostgresParameter(serverId_)}}},
                  ordinary_);
  const PostgresResult& now = results.at(0);
  news.everything = now.Integer(0, 1) != seenEpoch_;
  if (news.everything) return news;
  ReadAccounts(results.at(1), Description(), &news.contents);
  ReadRemoved(results.at(2), &news.contents);
  ReadAccounts(results.at(3), Description(), &news.contents);
  ReadRemoved(results.at(4), &news.contents);
  ReadUsage(results.at(5), &news.contents);
  seenVersion_ = now.Integer(0, 0);
  seenLedger_ = now.Integer(0, 2);
  ownVersions_.clear();
  untold_.clear();
  return news;
}

StoreNews PostgresStore::News() {
  StoreNews news;
  Guarded([&] { news = ReadNews(); });
  return news;
}

void PostgresStore::Reconnect() {
  if (!connecting_) connecting_ = std::make_unique<PostgresConnecting>(address_);
  try {
    connection_ = connecting_->Wait(kConnecting);
  } catch (const PostgresError&) {
    connecting_.reset();
    throw;
  }
  if (!connection_) throw PostgresError("no answer in time", {});
  connecting_.reset();
}

bool PostgresStore::Recover(QString* error) {
  try {
    Guarded([this] {
      if (!connection_) Reconnect();
      CheckPostgres(*connection_, Description(), In(kChecking));
    });
    return true;
  } catch (const std::runtime_error& problem) {
    *error = QString::fromUtf8(problem.what());
    return false;
  }
}

std::optional<AdjustmentRow> PostgresStore::Adjustment(const QString& id) {
  std::optional<AdjustmentRow> row;
  Guarded([&] {
    const PostgresResult found = Query({kAdjustment, {PostgresParameter(id)}}, ordinary_);
    if (found.Rows() != 0) row = AdjustmentRow{id, found.Blob(0, 0), found.Integer(0, 1)};
  });
  return row;
}

std::vector<LedgerRow> PostgresStore::Ledger(std::int64_t after, const QString& user,
                                             const QString& identifier, int limit, bool) {
  std::vector<LedgerRow> rows;
  Guarded([&] {
    const char* query = user.isEmpty()         ? kLedgerQuery
                        : identifier.isEmpty() ? kLedgerOfUser
                                               : kLedgerOfOne;
    const std::int64_t most = limit;
    rows = ReadLedger(Query({query,
                             {PostgresParameter(after), PostgresParameter(user),
                              PostgresParameter(identifier), PostgresParameter(most)}},
                            kReadingLedger));
  });
  return rows;
}

}  // namespace vardell::server
