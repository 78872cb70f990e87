#include "server/SqliteStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "server/ScheduleJson.h"
#include "server/Sqlite.h"
#include "server/SqliteSchema.h"
#include "server/SqliteWriting.h"
#include "server/StoreText.h"

namespace vardell::server {
namespace {

std::runtime_error ForPeople(const QString& line) {
  return std::runtime_error(line.toStdString());
}

QString WhatToDo(const SqliteError& error, const QString& path) {
  const QString reason = QString::fromUtf8(error.what());
  switch (error.code) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return QStringLiteral(
                 "the store %1 is in use by another program (another vardell-server?); stop that "
                 "one, or give another --store FILE")
          .arg(path);
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return QStringLiteral(
                 "the store %1 is damaged (%2); put a backup in its place, or move it away to "
                 "begin "
                 "with an empty one")
          .arg(path, reason);
    case SQLITE_FULL:
      return QStringLiteral("the disk of the store %1 is full; make room there").arg(path);
    default:
      return QStringLiteral(
                 "the store %1 cannot be used (%2); make its folder writable for this user, or "
                 "give "
                 "another --store FILE")
          .arg(path, reason);
  }
}

constexpr off_t kLeastBytes = 512;  // a page

// The database's companions take over the mode of a file that is there already.
void MakePrivateFile(const QString& path) {
  const int file = open(QFile::encodeName(path).constData(),
                        O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (file < 0) {
    throw ForPeople(QStringLiteral("the store %1 cannot be opened (%2); make its folder and let "
                                   "this user write there, or give another --store FILE")
                        .arg(path, QString::fromLocal8Bit(strerror(errno))));
  }
  struct stat facts {};
  const bool isKnown = fstat(file, &facts) == 0;
  close(file);
  // The database would take it for one that is still empty.
  if (isKnown && facts.st_size > 0 && facts.st_size < kLeastBytes) {
    throw SqliteError(SQLITE_NOTADB, "it is cut off");
  }
}

LimitsEntry ReadLimits(const SqliteStatement& row, const QString& path) {
  const auto integer = [&row](int column) {
    return static_cast<std::int32_t>(row.Integer(column));
  };
  const auto flag = [&row](int column) {
    return static_cast<std::uint8_t>(row.Integer(column) != 0);
  };
  LimitsEntry entry;
  entry.user = row.Text(0);
  entry.identifier = row.Text(1);
  entry.limits.nextTopUpTime = row.Real(2);
  entry.limits.reportCredit = flag(3);
  entry.limits.enabled = flag(4);
  entry.limits.topUpCoefficient = static_cast<std::int8_t>(integer(5));
  entry.limits.topUpValue = integer(6);
  entry.limits.weekEndCoefficient = static_cast<std::int8_t>(integer(7));
  entry.limits.weekEndValue = integer(8);
  entry.limits.weekDayStart = integer(9);
  entry.limits.weekDayStop = integer(10);
  entry.limits.weekEndStart = integer(11);
  entry.limits.weekEndStop = integer(12);
  entry.limits.weekDayCurfewEnabled = flag(13);
  entry.limits.weekEndCurfewEnabled = flag(14);
  entry.limits.diskQuotaEnabled = flag(15);
  entry.limits.diskQuotaValue = integer(16);
  entry.revision = static_cast<std::uint64_t>(row.Integer(17));
  entry.options.rollOver = row.Integer(18) != 0;
  if (!row.IsNull(19)) entry.options.cap = row.Integer(19);
  entry.options.unlimited = row.Integer(20) != 0;
  const bool isReadable = ReadParallel(row.Text(21), &entry.options.parallel) &&
                          ReadScope(row.Text(22), &entry.options.scope) &&
                          ReadSchedule(row.Text(23), &entry.options.schedule);
  if (!isReadable) {
    throw ForPeople(QStringLiteral("the store %1 is damaged (the options of %2, %3, cannot be "
                                   "read); put a backup in its place")
                        .arg(path, entry.user, entry.identifier));
  }
  return entry;
}

void RefuseUnbalanced(SqliteDatabase& database, const QString& path) {
  SqliteStatement row(database,
                      "SELECT user, identifier, sum(minutes) FROM ("
                      "  SELECT user, identifier, minutes FROM ledger"
                      "    WHERE id > (SELECT through FROM balanced) UNION ALL"
                      "  SELECT user, identifier, minutes FROM balances UNION ALL"
                      "  SELECT user, identifier, -minutes FROM credit) "
                      "GROUP BY user, identifier HAVING sum(minutes) <> 0 LIMIT 1");
  if (!row.Step()) return;
  throw ForPeople(QStringLiteral("the store %1 is damaged (the credit of %2, %3, is not the sum of "
                                 "its ledger); put a backup in its place")
                      .arg(path, row.Text(0), row.Text(1)));
}

void KeepBalances(SqliteDatabase& database) {
  database.Execute(
      "INSERT INTO balances SELECT user, identifier, sum(minutes) FROM ledger "
      "WHERE id > (SELECT through FROM balanced) GROUP BY user, identifier "
      "ON CONFLICT (user, identifier) DO UPDATE SET minutes = minutes + excluded.minutes");
  database.Execute("UPDATE balanced SET through = (SELECT coalesce(max(id), 0) FROM ledger)");
}

std::vector<TopUpRow> ReadTopUps(SqliteDatabase& database, const QString& path) {
  std::vector<TopUpRow> topUps;
  SqliteStatement row(database,
                      "SELECT user, identifier, next_auto_update, memory FROM top_ups "
                      "JOIN limits USING (user, identifier)");
  while (row.Step()) {
    const std::optional<TopUpMemory> memory = ParseTopUpMemory(row.Text(3));
    if (!memory) {
      throw ForPeople(
          QStringLiteral("the store %1 is damaged (which top-ups %2, %3, has had cannot "
                         "be read); put a backup in its place")
              .arg(path, row.Text(0), row.Text(1)));
    }
    topUps.push_back({row.Text(0), row.Text(1), row.Real(2), *memory});
  }
  return topUps;
}

StoreContents ReadContents(SqliteDatabase& database, const QString& path, const QString& bootId) {
  StoreContents contents;
  contents.topUps = ReadTopUps(database, path);
  for (SqliteStatement row(database, "SELECT * FROM limits"); row.Step();) {
    contents.limits.push_back(ReadLimits(row, path));
  }
  for (SqliteStatement row(database, "SELECT user, identifier, revision FROM removed_limits");
       row.Step();) {
    contents.removed.push_back(
        {row.Text(0), row.Text(1), static_cast<std::uint64_t>(row.Integer(2))});
  }
  for (SqliteStatement row(database, "SELECT user, identifier, minutes, spent FROM credit");
       row.Step();) {
    contents.credit.push_back({row.Text(0), row.Text(1), row.Integer(2), row.Integer(3) != 0});
  }
  SqliteStatement lane(database,
                       "SELECT user, identifier, host, paid_until_ms FROM lanes WHERE boot_id = ?");
  for (lane << bootId; lane.Step();) {
    contents.lanes.push_back(
        {lane.Text(0), lane.Text(1), lane.Text(2), std::chrono::milliseconds(lane.Integer(3))});
  }
  for (SqliteStatement row(database,
                           "SELECT user, identifier, day, minutes FROM usage WHERE minutes <> 0");
       row.Step();) {
    contents.usage.push_back(
        {row.Text(0), row.Text(1), QDate::fromString(row.Text(2), Qt::ISODate), row.Integer(3)});
  }
  return contents;
}

std::optional<std::int64_t> FirstUnfinished(SqliteDatabase& database) {
  SqliteStatement row(database, "SELECT first_row FROM unfinished_restore");
  return row.Step() ? std::optional(row.Integer(0)) : std::nullopt;
}

// The rows to be written from now on.
void MarkUnfinished(SqliteDatabase& database) {
  database.Execute(
      "INSERT INTO unfinished_restore "
      "SELECT 1 + coalesce((SELECT seq FROM sqlite_sequence WHERE name = 'ledger'), 0)");
}

// Whether that was the last of them.
bool DeleteUnfinished(SqliteDatabase& database, std::int64_t first, int most) {
  SqliteStatement rows(database,
                       "DELETE FROM ledger WHERE id IN (SELECT id FROM ledger WHERE id >= ? AND "
                       "source = 'restore' ORDER BY id DESC LIMIT ?)");
  rows << first << std::int64_t{most};
  rows.Run();
  return sqlite3_changes(database.Handle()) < most;
}

constexpr char kLedgerQuery[] =
    "SELECT id, time, user, identifier, host, source, minutes, credit, used, claimed, actor, "
    "reason, day FROM ledger WHERE id > ?1 AND ?2 = ?2 AND (?3 = '' OR identifier = ?3) "
    "AND NOT (id >= ?5 AND source = 'restore') AND id < ?6 ORDER BY id LIMIT ?4";
// The ids come from the index alone; whoever has few rows, or none, has them at once.
constexpr char kLedgerOfUser[] =
    "SELECT id, time, user, identifier, host, source, minutes, credit, used, claimed, actor, "
    "reason, day FROM ledger WHERE id IN (SELECT id FROM ledger WHERE user = ?2 AND id > ?1 "
    "AND id < ?6) AND ?3 = ?3 AND NOT (id >= ?5 AND source = 'restore') ORDER BY id LIMIT ?4";
// By the index; the parameters are the same.
constexpr char kLedgerOfOne[] =
    "SELECT id, time, user, identifier, host, source, minutes, credit, used, claimed, actor, "
    "reason, day FROM ledger WHERE id > ?1 AND user = ?2 AND identifier = ?3 "
    "AND NOT (id >= ?5 AND source = 'restore') AND id < ?6 ORDER BY id LIMIT ?4";

LedgerRow ReadLedgerRow(const SqliteStatement& row) {
  LedgerRow entry;
  entry.id = row.Integer(0);
  entry.time = QDateTime::fromString(row.Text(1), Qt::ISODateWithMs);
  entry.user = row.Text(2);
  entry.identifier = row.Text(3);
  entry.host = row.Text(4);
  entry.source = row.Text(5);
  entry.minutes = row.Integer(6);
  entry.credit = row.Integer(7);
  entry.used = row.Integer(8);
  if (!row.IsNull(9)) entry.claimed = static_cast<std::int32_t>(row.Integer(9));
  entry.actor = row.Text(10);
  entry.reason = row.Text(11);
  entry.day = QDate::fromString(row.Text(12), Qt::ISODate);
  return entry;
}

}  // namespace

SqliteStore::SqliteStore(const QString& path) : path_(path) {
  try {
    MakePrivateFile(path);
    database_ = std::make_unique<SqliteDatabase>(path);
    PrepareStore(*database_, path);
    firstUnfinished_ = FirstUnfinished(*database_);
  } catch (const SqliteError& error) {
    throw ForPeople(WhatToDo(error, path));
  }
}

SqliteStore::~SqliteStore() = default;

StoreContents SqliteStore::Load(const QString& bootId) {
  QString line;
  if (!ForgetUnfinished(std::numeric_limits<int>::max(), &line)) throw ForPeople(line);
  try {
    RefuseUnbalanced(*database_, path_);
    (void)InOneTransaction([this] { KeepBalances(*database_); }, &line);  // or at a later start
    StoreContents contents = ReadContents(*database_, path_, bootId);
    database_->TidyUpAtTheEnd();
    return contents;
  } catch (const SqliteError& error) {
    throw ForPeople(WhatToDo(error, path_));
  }
}

std::uint64_t SqliteStore::LastNumber() {
  try {
    SqliteStatement row(*database_, "SELECT last FROM numbers WHERE server = ?");
    row << serverId_;
    return row.Step() ? static_cast<std::uint64_t>(row.Integer(0)) : 0;
  } catch (const SqliteError& error) {
    throw ForPeople(WhatToDo(error, path_));
  }
}

bool SqliteStore::Recover(QString* error) {
  return InOneTransaction([&] { WriteNumber(*database_, serverId_, LastNumber()); }, error);
}

bool SqliteStore::InOneTransaction(const std::function<void()>& write, QString* error) {
  try {
    SqliteTransaction transaction(*database_);
    write();
    transaction.Commit();
    return true;
  } catch (const SqliteError& problem) {
    *error = WhatToDo(problem, path_);
    return false;
  }
}

ApplyResult SqliteStore::Apply(const std::vector<StoreChange>& changes, const QString& bootId,
                               std::uint64_t lastNumber) {
  ApplyResult result;
  const auto write = [&] {
    for (const StoreChange& change : changes) WriteChange(*database_, change, bootId);
    if (lastNumber != 0) WriteNumber(*database_, serverId_, lastNumber);
  };
  if (!InOneTransaction(write, &result.error)) result.status = ApplyStatus::Failed;
  return result;
}

bool SqliteStore::WriteAhead(const std::vector<LedgerRow>& rows, QString* error) {
  std::optional<std::int64_t> first = firstUnfinished_;
  const auto write = [&] {
    if (!first) MarkUnfinished(*database_);
    if (!first) first = FirstUnfinished(*database_);
    for (const LedgerRow& row : rows) WriteLedgerRow(*database_, row);
  };
  if (!InOneTransaction(write, error)) return false;
  firstUnfinished_ = first;
  return true;
}

ApplyResult SqliteStore::ApplyLast(const std::vector<StoreChange>& changes, const QString& bootId) {
  ApplyResult result;
  const auto write = [&] {
    if (firstUnfinished_) AddUsageFrom(*database_, *firstUnfinished_);
    for (const StoreChange& change : changes) WriteChange(*database_, change, bootId);
    database_->Execute("DELETE FROM unfinished_restore");
  };
  if (InOneTransaction(write, &result.error)) {
    firstUnfinished_.reset();
  } else {
    result.status = ApplyStatus::Failed;
  }
  return result;
}

bool SqliteStore::ForgetUnfinished(int most, QString* error) {
  if (!firstUnfinished_) return true;
  bool isAll = false;
  const auto write = [&] {
    isAll = DeleteUnfinished(*database_, *firstUnfinished_, most);
    if (isAll) database_->Execute("DELETE FROM unfinished_restore");
  };
  if (!InOneTransaction(write, error)) return false;
  if (isAll) firstUnfinished_.reset();
  return true;
}

std::optional<AdjustmentRow> SqliteStore::Adjustment(const QString& id) {
  SqliteStatement row(*database_, "SELECT digest, added FROM adjustments WHERE id = ?");
  row << id;
  if (!row.Step()) return std::nullopt;
  return AdjustmentRow{id, row.Blob(0), row.Integer(1)};
}

std::vector<LedgerRow> SqliteStore::Ledger(std::int64_t after, const QString& user,
                                           const QString& identifier, int limit, bool isUnderWay) {
  constexpr std::int64_t none = std::numeric_limits<std::int64_t>::max();
  const std::int64_t unfinished = firstUnfinished_.value_or(none);
  SqliteStatement row(*database_, user.isEmpty()         ? kLedgerQuery
                                  : identifier.isEmpty() ? kLedgerOfUser
                                                         : kLedgerOfOne);
  row << after << user << identifier << std::int64_t{limit} << unfinished
      << (isUnderWay ? unfinished : none);
  std::vector<LedgerRow> rows;
  while (row.Step()) rows.push_back(ReadLedgerRow(row));
  return rows;
}

QString SqliteStore::Description() const {
  return QStringLiteral("SQLite, ") + path_;
}

}  // namespace vardell::server
