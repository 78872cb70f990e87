#include "server/SqliteSchema.h"

#include <QDateTime>
#include <stdexcept>

#include "server/Sqlite.h"
#include "server/Store.h"

namespace vardell::server {
namespace {

constexpr std::int64_t kMostBytesChecked = 64ll << 20;
constexpr std::int64_t kApplicationId = 0x56617264;  // "Vard"

constexpr char kVersion1[] = R"sql(
CREATE TABLE limits (
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  next_auto_update REAL NOT NULL,
  report_credit INTEGER NOT NULL,
  enabled INTEGER NOT NULL,
  auto_update_coeff INTEGER NOT NULL,
  auto_update_value INTEGER NOT NULL,
  we_coeff INTEGER NOT NULL,
  we_value INTEGER NOT NULL,
  wd_start INTEGER NOT NULL,
  wd_stop INTEGER NOT NULL,
  we_start INTEGER NOT NULL,
  we_stop INTEGER NOT NULL,
  wd_curfew_enabled INTEGER NOT NULL,
  we_curfew_enabled INTEGER NOT NULL,
  dq_enabled INTEGER NOT NULL,
  dq_value INTEGER NOT NULL,
  revision INTEGER NOT NULL CHECK (revision > 0),
  PRIMARY KEY (user, identifier)
) WITHOUT ROWID;

CREATE TABLE credit (
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  minutes INTEGER NOT NULL CHECK (minutes >= 0 AND minutes <> 12345),
  spent INTEGER NOT NULL,
  PRIMARY KEY (user, identifier)
) WITHOUT ROWID;

CREATE TABLE lanes (
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  host TEXT NOT NULL,
  boot_id TEXT NOT NULL,
  paid_until_ms INTEGER NOT NULL,
  PRIMARY KEY (user, identifier, host)
) WITHOUT ROWID;

CREATE TABLE ledger (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  time TEXT NOT NULL,
  day TEXT NOT NULL,
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  host TEXT NOT NULL,
  source TEXT NOT NULL,
  minutes INTEGER NOT NULL,
  credit INTEGER NOT NULL CHECK (credit >= 0),
  used INTEGER NOT NULL,
  claimed INTEGER,
  actor TEXT NOT NULL,
  reason TEXT NOT NULL
);
CREATE INDEX ledger_by_identifier ON ledger (user, identifier, id);
CREATE TRIGGER ledger_is_not_changed BEFORE UPDATE ON ledger
  BEGIN SELECT RAISE(ABORT, 'the ledger is append-only'); END;
CREATE TRIGGER ledger_is_not_deleted BEFORE DELETE ON ledger
  BEGIN SELECT RAISE(ABORT, 'the ledger is append-only'); END;

CREATE TABLE adjustments (
  id TEXT PRIMARY KEY,
  digest BLOB NOT NULL
) WITHOUT ROWID;

CREATE TABLE audit (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  time TEXT NOT NULL,
  actor TEXT NOT NULL,
  what TEXT NOT NULL,
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  before TEXT NOT NULL,
  after TEXT NOT NULL
);
CREATE TRIGGER audit_is_not_changed BEFORE UPDATE ON audit
  BEGIN SELECT RAISE(ABORT, 'the audit is append-only'); END;
CREATE TRIGGER audit_is_not_deleted BEFORE DELETE ON audit
  BEGIN SELECT RAISE(ABORT, 'the audit is append-only'); END;
)sql";

// removed_limits: the revision that a limit had when it was removed; one made again goes on from
// it. unfinished_restore: at most one row; ledger rows from first_row on whose source is "restore"
// do not count yet, and may be deleted.
constexpr char kVersion2[] = R"sql(
ALTER TABLE adjustments ADD COLUMN added INTEGER NOT NULL DEFAULT 0;

CREATE TABLE removed_limits (
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  revision INTEGER NOT NULL CHECK (revision > 0),
  PRIMARY KEY (user, identifier)
) WITHOUT ROWID;

CREATE TABLE unfinished_restore (
  first_row INTEGER NOT NULL
);

DROP TRIGGER ledger_is_not_deleted;
CREATE TRIGGER ledger_is_not_deleted BEFORE DELETE ON ledger
  WHEN NOT EXISTS (SELECT 1 FROM unfinished_restore
                   WHERE OLD.source = 'restore' AND OLD.id >= first_row)
  BEGIN SELECT RAISE(ABORT, 'the ledger is append-only'); END;
)sql";

// top_ups: what is remembered from one top-up to the next; only of limits that are there.
constexpr char kVersion3[] = R"sql(
ALTER TABLE limits ADD COLUMN roll_over INTEGER NOT NULL DEFAULT 0;
ALTER TABLE limits ADD COLUMN roll_over_cap INTEGER CHECK (roll_over_cap >= 0);

CREATE TABLE top_ups (
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  memory TEXT NOT NULL,
  PRIMARY KEY (user, identifier)
) WITHOUT ROWID;
)sql";

// usage: the sums of the ledger's rows that count, by day. numbers: of the last change that is
// stored for a Server. balances: the sums of the ledger's minutes through one row (balanced), so
// that a start has to add up only the rows behind it.
constexpr char kVersion4[] = R"sql(
ALTER TABLE limits ADD COLUMN unlimited INTEGER NOT NULL DEFAULT 0;
ALTER TABLE limits ADD COLUMN parallel TEXT NOT NULL DEFAULT 'sum';
ALTER TABLE limits ADD COLUMN scope TEXT NOT NULL DEFAULT 'user';
ALTER TABLE limits ADD COLUMN schedule TEXT NOT NULL DEFAULT '';

CREATE TABLE usage (
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  day TEXT NOT NULL,
  minutes INTEGER NOT NULL,
  PRIMARY KEY (user, identifier, day)
) WITHOUT ROWID;
INSERT INTO usage SELECT user, identifier, day, sum(used) FROM ledger
  WHERE NOT (source = 'restore' AND id >= coalesce((SELECT first_row FROM unfinished_restore),
                                                   9223372036854775807))
  GROUP BY user, identifier, day HAVING sum(used) <> 0;

CREATE TABLE numbers (
  server TEXT PRIMARY KEY,
  last INTEGER NOT NULL
) WITHOUT ROWID;

CREATE TABLE balances (
  user TEXT NOT NULL,
  identifier TEXT NOT NULL,
  minutes INTEGER NOT NULL,
  PRIMARY KEY (user, identifier)
) WITHOUT ROWID;
CREATE TABLE balanced (through INTEGER NOT NULL);
INSERT INTO balanced VALUES (0);
)sql";

constexpr const char* kMigrations[] = {kVersion1, kVersion2, kVersion3, kVersion4};
static_assert(std::size(kMigrations) == kStoreSchemaVersion);

std::int64_t QueryInteger(SqliteDatabase& database, const char* sql) {
  SqliteStatement statement(database, sql);
  return statement.Step() ? statement.Integer(0) : 0;
}

void SetModes(SqliteDatabase& database) {
  database.Execute("PRAGMA journal_mode = WAL");
  database.Execute("PRAGMA synchronous = FULL");
  database.Execute("PRAGMA trusted_schema = OFF");
}

// A large file would take many seconds; what is damaged there is noticed where it is read.
void RefuseDamaged(SqliteDatabase& database) {
  const std::int64_t bytes =
      QueryInteger(database, "PRAGMA page_count") * QueryInteger(database, "PRAGMA page_size");
  if (bytes > kMostBytesChecked) return;
  SqliteStatement check(database, "PRAGMA quick_check(1)");
  const QString answer = check.Step() ? check.Text(0) : QString();
  if (answer != QLatin1String("ok")) {
    constexpr int corrupt = 11;  // SQLITE_CORRUPT
    throw SqliteError(corrupt, answer.simplified().toStdString());
  }
}

void RefuseForeign(SqliteDatabase& database, const QString& path) {
  const bool ours = QueryInteger(database, "PRAGMA application_id") == kApplicationId;
  const bool empty = QueryInteger(database, "SELECT count(*) FROM sqlite_schema") == 0;
  if (ours || empty) return;
  throw std::runtime_error(
      QStringLiteral("%1 is a database of another program; give another --store FILE")
          .arg(path)
          .toStdString());
}

std::int64_t CurrentVersion(SqliteDatabase& database) {
  database.Execute(
      "CREATE TABLE IF NOT EXISTS migrations (version INTEGER PRIMARY KEY, applied TEXT NOT NULL)");
  return QueryInteger(database, "SELECT max(version) FROM migrations");
}

void Migrate(SqliteDatabase& database, std::int64_t from, std::int64_t to) {
  for (std::int64_t version = from + 1; version <= to; ++version) {
    database.Execute(kMigrations[version - 1]);
    SqliteStatement done(database, "INSERT INTO migrations (version, applied) VALUES (?, ?)");
    done << version << QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    done.Run();
  }
}

}  // namespace

void PrepareStore(SqliteDatabase& database, const QString& path, int version) {
  // Before all else: otherwise the write-ahead log wants a file beside it, which a full disk
  // refuses.
  database.Execute("PRAGMA locking_mode = EXCLUSIVE");
  RefuseForeign(database, path);
  SetModes(database);
  SqliteTransaction transaction(database);
  RefuseDamaged(database);
  const std::int64_t found = CurrentVersion(database);
  if (found > kStoreSchemaVersion) {
    throw std::runtime_error(
        QStringLiteral("the store %1 was made by a newer version (schema %2, this one knows %3); "
                       "install that version, or give another --store FILE")
            .arg(path)
            .arg(found)
            .arg(kStoreSchemaVersion)
            .toStdString());
  }
  Migrate(database, found, version);
  if (found == 0) database.Execute("PRAGMA application_id = 0x56617264");
  transaction.Commit();
}

}  // namespace vardell::server
