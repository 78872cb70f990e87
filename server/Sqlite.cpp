#include "server/Sqlite.h"

#include <sqlite3.h>

#include <QStringEncoder>
#include <utility>

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
  sqlite3_stmt*& kept = kept_[sql];
  if (kept) return std::exchange(kept, nullptr);
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v2(handle_, sql, -1, &statement, nullptr);
  if (code != SQLITE_OK) Throw(handle_, code);
  return statement;
}

void SqliteDatabase::Keep(const char* sql, sqlite3_stmt* statement) {
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  sqlite3_finalize(std::exchange(kept_[sql], statement));
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
  QStringEncoder encoder(QStringEncoder::Utf8, QStringEncoder::Flag::Stateless);
  const auto bind = [this](const char* text, std::size_t size, sqlite3_destructor_type owner) {
    Check(sqlite3_bind_text64(statement_, nextParameter_++, text, size, owner, SQLITE_UTF8));
  };
  char* const begin = texts_.data() + textBytes_;
  if (static_cast<std::size_t>(encoder.requiredSpace(value.size())) > texts_.size() - textBytes_) {
    const QByteArray text = encoder(value);
    bind(text.constData(), static_cast<std::size_t>(text.size()), SQLITE_TRANSIENT);
    return *this;
  }
  const auto size = static_cast<std::size_t>(encoder.appendToBuffer(begin, value) - begin);
  textBytes_ += size;
  bind(begin, size, SQLITE_STATIC);
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
