#include "server/PostgresSchema.h"

#include <QDateTime>
#include <algorithm>

#include "server/Store.h"

namespace vardell::server {
namespace {

// The first one: numbers are shared with SQLite, where a version means the same.
constexpr int kFirstVersion = 4;

constexpr char kVersion4[] = R"sql(
CREATE TABLE state (
  one boolean PRIMARY KEY DEFAULT true CHECK (one),
  version bigint NOT NULL,
  epoch bigint NOT NULL
);
INSERT INTO state (version, epoch) VALUES (1, 1);

CREATE TABLE limits (
  "user" text COLLATE "C" NOT NULL,
  identifier text COLLATE "C" NOT NULL,
  next_auto_update double precision NOT NULL,
  report_credit boolean NOT NULL,
  enabled boolean NOT NULL,
  auto_update_coeff bigint NOT NULL,
  auto_update_value bigint NOT NULL,
  we_coeff bigint NOT NULL,
  we_value bigint NOT NULL,
  wd_start bigint NOT NULL,
  wd_stop bigint NOT NULL,
  we_start bigint NOT NULL,
  we_stop bigint NOT NULL,
  wd_curfew_enabled boolean NOT NULL,
  we_curfew_enabled boolean NOT NULL,
  dq_enabled boolean NOT NULL,
  dq_value bigint NOT NULL,
  revision bigint NOT NULL CHECK (revision > 0),
  roll_over boolean NOT NULL,
  roll_over_cap bigint CHECK (roll_over_cap >= 0),
  unlimited boolean NOT NULL,
  parallel text NOT NULL,
  scope text NOT NULL,
  schedule text NOT NULL,
  PRIMARY KEY ("user", identifier)
);

CREATE TABLE credit (
  "user" text COLLATE "C" NOT NULL,
  identifier text COLLATE "C" NOT NULL,
  minutes bigint NOT NULL CHECK (minutes >= 0 AND minutes <> 12345),
  spent boolean NOT NULL,
  version bigint NOT NULL,
  PRIMARY KEY ("user", identifier)
);
CREATE INDEX credit_by_version ON credit (version);

CREATE TABLE removed_limits (
  "user" text COLLATE "C" NOT NULL,
  identifier text COLLATE "C" NOT NULL,
  revision bigint NOT NULL CHECK (revision > 0),
  version bigint NOT NULL,
  PRIMARY KEY ("user", identifier)
);
CREATE INDEX removed_limits_by_version ON removed_limits (version);

CREATE TABLE top_ups (
  "user" text COLLATE "C" NOT NULL,
  identifier text COLLATE "C" NOT NULL,
  memory text NOT NULL,
  PRIMARY KEY ("user", identifier)
);

CREATE TABLE lanes (
  "user" text COLLATE "C" NOT NULL,
  identifier text COLLATE "C" NOT NULL,
  host text COLLATE "C" NOT NULL,
  server text COLLATE "C" NOT NULL,
  boot_id text NOT NULL,
  paid_until_ms bigint NOT NULL,
  PRIMARY KEY ("user", identifier, host, server)
);

CREATE TABLE ledger (
  id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  time text NOT NULL,
  day date NOT NULL,
  "user" text COLLATE "C" NOT NULL,
  identifier text COLLATE "C" NOT NULL,
  host text NOT NULL,
  source text NOT NULL,
  minutes bigint NOT NULL,
  credit bigint NOT NULL CHECK (credit >= 0),
  used bigint NOT NULL,
  claimed bigint,
  actor text NOT NULL,
  reason text NOT NULL,
  server text NOT NULL
);
CREATE INDEX ledger_by_identifier ON ledger ("user", identifier, id);

CREATE TABLE usage (
  "user" text COLLATE "C" NOT NULL,
  identifier text COLLATE "C" NOT NULL,
  day date NOT NULL,
  minutes bigint NOT NULL,
  PRIMARY KEY ("user", identifier, day)
);

CREATE TABLE numbers (
  server text COLLATE "C" PRIMARY KEY,
  last bigint NOT NULL
);

CREATE TABLE restore_rows (
  number bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  server text COLLATE "C" NOT NULL,
  restore text COLLATE "C" NOT NULL,
  written timestamptz NOT NULL DEFAULT now(),
  time text NOT NULL,
  day date NOT NULL,
  "user" text COLLATE "C" NOT NULL,
  identifier text COLLATE "C" NOT NULL,
  host text NOT NULL,
  source text NOT NULL,
  minutes bigint NOT NULL CHECK (minutes = 0),
  credit bigint NOT NULL CHECK (credit >= 0),
  used bigint NOT NULL,
  claimed bigint,
  actor text NOT NULL,
  reason text NOT NULL
);

CREATE TABLE adjustments (
  id text COLLATE "C" PRIMARY KEY,
  digest bytea NOT NULL,
  added bigint NOT NULL
);

CREATE TABLE audit (
  id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  time text NOT NULL,
  actor text NOT NULL,
  what text NOT NULL,
  "user" text NOT NULL,
  identifier text NOT NULL,
  before text NOT NULL,
  after text NOT NULL,
  server text NOT NULL
);

CREATE FUNCTION refuse_change() RETURNS trigger LANGUAGE plpgsql AS $$
  BEGIN RAISE EXCEPTION 'the % is append-only', TG_TABLE_NAME; END $$;
CREATE TRIGGER ledger_is_not_changed BEFORE UPDATE OR DELETE OR TRUNCATE ON ledger
  FOR EACH STATEMENT EXECUTE FUNCTION refuse_change();
CREATE TRIGGER audit_is_not_changed BEFORE UPDATE OR DELETE OR TRUNCATE ON audit
  FOR EACH STATEMENT EXECUTE FUNCTION refuse_change();
)sql";

constexpr const char* kMigrations[] = {kVersion4};
static_assert(std::size(kMigrations) == kStoreSchemaVersion - kFirstVersion + 1);

// Not by to_regclass: after waiting for an advisory lock it may still say what was before.
constexpr char kHasMigrations[] =
    "SELECT EXISTS (SELECT 1 FROM pg_tables "
    "WHERE schemaname = 'vardell' AND tablename = 'migrations')";
constexpr char kHasSchema[] =
    "SELECT EXISTS (SELECT 1 FROM pg_namespace WHERE nspname = 'vardell')";

std::runtime_error ForPeople(const QString& line) {
  return std::runtime_error(line.toStdString());
}

bool Asks(PostgresConnection& connection, const char* sql, PostgresDeadline deadline) {
  return connection.Exchange({{sql}}, deadline).at(0).Flag(0, 0);
}

void RefuseUnusable(PostgresConnection& connection, const QString& what,
                    PostgresDeadline deadline) {
  const QString encoding = connection.Setting("server_encoding");
  if (encoding != QLatin1String("UTF8")) {
    throw ForPeople(QStringLiteral("the database of the store, %1, has the encoding %2; create one "
                                   "with ENCODING 'UTF8' TEMPLATE template0, and give that")
                        .arg(what, encoding));
  }
  if (!Asks(connection, "SELECT current_setting('transaction_read_only')::boolean", deadline)) {
    return;
  }
  throw PostgresError("changes are not accepted", "25006");
}

// 0: there are no tables yet.
std::int64_t VersionFound(PostgresConnection& connection, PostgresDeadline deadline) {
  if (!Asks(connection, kHasMigrations, deadline)) return 0;
  constexpr char query[] = "SELECT coalesce(max(version), 0) FROM migrations";
  return connection.Exchange({{query}}, deadline).at(0).Integer(0, 0);
}

void RefuseNewer(std::int64_t found, const QString& what) {
  if (found <= kStoreSchemaVersion) return;
  throw ForPeople(QStringLiteral("the store, %1, was made by a newer version (schema %2, this one "
                                 "knows %3); install that version, or give another --store")
                      .arg(what)
                      .arg(found)
                      .arg(kStoreSchemaVersion));
}

void MakeSchema(PostgresConnection& connection, PostgresDeadline deadline) {
  if (!Asks(connection, kHasSchema, deadline)) {
    connection.Execute("CREATE SCHEMA vardell", deadline);
  }
  connection.Execute("CREATE TABLE migrations (version bigint PRIMARY KEY, applied text NOT NULL)",
                     deadline);
}

void Migrate(PostgresConnection& connection, std::int64_t from, PostgresDeadline deadline) {
  if (from == 0) MakeSchema(connection, deadline);
  for (std::int64_t version = std::max<std::int64_t>(from + 1, kFirstVersion);
       version <= kStoreSchemaVersion; ++version) {
    connection.Execute(kMigrations[version - kFirstVersion], deadline);
    const QString now = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    connection.Exchange({{"INSERT INTO migrations VALUES ($1, $2)",
                          {PostgresParameter(version), PostgresParameter(now)}}},
                        deadline);
  }
}

constexpr char kBegin[] =
    "BEGIN; SET LOCAL statement_timeout = 0; SET LOCAL lock_timeout = 0; "
    "SET LOCAL idle_in_transaction_session_timeout = '10s'";
constexpr char kLock[] = "SELECT 1::bigint FROM pg_advisory_xact_lock($1)";

}  // namespace

void PreparePostgres(PostgresConnection& connection, const QString& what,
                     PostgresDeadline deadline) {
  RefuseUnusable(connection, what, deadline);
  std::int64_t found = VersionFound(connection, deadline);
  RefuseNewer(found, what);
  if (found == kStoreSchemaVersion) return;
  connection.Execute(kBegin, deadline);
  connection.Exchange({{kLock, {PostgresParameter(kPostgresLock)}}}, deadline);
  found = VersionFound(connection, deadline);
  RefuseNewer(found, what);
  if (found < kStoreSchemaVersion) Migrate(connection, found, deadline);
  connection.Execute("COMMIT", deadline);
}

void CheckPostgres(PostgresConnection& connection, const QString& what, PostgresDeadline deadline) {
  RefuseUnusable(connection, what, deadline);
  const std::int64_t found = VersionFound(connection, deadline);
  RefuseNewer(found, what);
  if (found == kStoreSchemaVersion) return;
  throw ForPeople(QStringLiteral("the tables of the store, %1, are gone; restore a backup of the "
                                 "database, or start vardell-server again to make them anew")
                      .arg(what));
}

}  // namespace vardell::server
