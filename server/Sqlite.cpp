#include "server/Sqlite.h"

#include <sqlite3.h>

namespace vardell::server {
namespace {

[[noreturn]] void Throw(sqlite3* handle, int code) {
  const char* message = handle ? sqlite3_errmsg(handle) : sqlite3_errstr(code);
  throw SqliteError(code & 0xff, message);
}

}  // namespace

SqliteDatabase::SqliteDatabase(const QString& path) {
  constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW;
  const int code = sqlite3_open_v2(path.toUtf8().constData(), &handle_, flags, nullptr);
  if (code == SQLITE_OK) {
    sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    return;
  }
  const SqliteError error(code & 0xff, handle_ ? sqlite3_errmsg(handle_) : sqlite3_errstr(code));
  sqlite3_close(handle_);
  throw error;
}

SqliteDatabase::~SqliteDatabase() {
  for (const auto& [sql, statement] : kept_) sqlite3_finalize(statement);
  sqlite3_close(handle_);
}

void SqliteDatabase::TidyUpAtTheEnd() {
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
}

void SqliteDatabase::Execute(const char* sql) {
  const int code = sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) Throw(handle_, code);
}

sqlite3_stmt* SqliteDatabase::Compile(const char* sql) {
  const auto found = kept_.find(sql);
  if (found != kept_.end()) return kept_.extract(found).mapped();
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v2(handle_, sql, -1, &statement, nullptr);
  if (code != SQLITE_OK) Throw(handle_, code);
  return statement;
}

void SqliteDatabase::Keep(const char* sql, sqlite3_stmt* statement) {
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  if (!kept_.emplace(sql, statement).second) sqlite3_finalize(statement);
}

SqliteStatement::SqliteStatement(SqliteDatabase& database, const char* sql)
    : database_(database), sql_(sql), statement_(database.Compile(sql)) {}

SqliteStatement::~SqliteStatement() {
  database_.Keep(sql_, statement_);
}

void SqliteStatement::Check(int code) const {
  if (code != SQLITE_OK) Throw(database_.Handle(), code);
}

SqliteStatement& SqliteStatement::operator<<(std::int64_t value) {
  Check(sqlite3_bind_int64(statement_, nextParameter_++, value));
  return *this;
}

SqliteStatement& SqliteStatement::operator<<(double value) {
  Check(sqlite3_bind_double(statement_, nextParameter_++, value));
  return *this;
}

SqliteStatement& SqliteStatement::operator<<(const QString& value) {
  const QByteArray text = value.toUtf8();
  Check(sqlite3_bind_text64(statement_, nextParameter_++, text.constData(),
                            static_cast<sqlite3_uint64>(text.size()), SQLITE_TRANSIENT,
                            SQLITE_UTF8));
  return *this;
}

SqliteStatement& SqliteStatement::operator<<(const QByteArray& value) {
  Check(sqlite3_bind_blob64(statement_, nextParameter_++, value.constData(),
                            static_cast<sqlite3_uint64>(value.size()), SQLITE_TRANSIENT));
  return *this;
}

SqliteStatement& SqliteStatement::operator<<(std::nullptr_t) {
  Check(sqlite3_bind_null(statement_, nextParameter_++));
  return *this;
}

bool SqliteStatement::Step() {
  const int code = sqlite3_step(statement_);
  if (code == SQLITE_ROW) return true;
  if (code != SQLITE_DONE) Throw(database_.Handle(), code);
  return false;
}

void SqliteStatement::Run() {
  while (Step()) {
  }
}

std::int64_t SqliteStatement::Integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}

double SqliteStatement::Real(int column) const {
  return sqlite3_column_double(statement_, column);
}

QString SqliteStatement::Text(int column) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  return QString::fromUtf8(text, sqlite3_column_bytes(statement_, column));
}

QByteArray SqliteStatement::Blob(int column) const {
  const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
  return QByteArray(bytes, sqlite3_column_bytes(statement_, column));
}

bool SqliteStatement::IsNull(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

SqliteTransaction::SqliteTransaction(SqliteDatabase& database) : database_(database) {
  database_.Execute("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction() {
  // Fails where the engine has rolled back by itself, as it does on a full disk.
  if (open_) (void)sqlite3_exec(database_.Handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void SqliteTransaction::Commit() {
  database_.Execute("COMMIT");
  open_ = false;
}

}  // namespace vardell::server
