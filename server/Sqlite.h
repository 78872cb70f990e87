// SQLite with ownership: a database and its statements. Everything that fails throws SqliteError.
// One thread at a time.
#pragma once

#include <QByteArray>
#include <QString>
#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace vardell::server {

class SqliteError : public std::runtime_error {
 public:
  SqliteError(int resultCode, const std::string& message)
      : std::runtime_error(message), code(resultCode) {}

  const int code;  // SQLite's primary result code
};

class SqliteDatabase {
 public:
  explicit SqliteDatabase(const QString& path);
  ~SqliteDatabase();
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  void Execute(const char* sql);
  // Its end leaves the file and the write-ahead log beside it as they are, until this is said.
  void TidyUpAtTheEnd();
  sqlite3* Handle() const { return handle_; }

  // A compiled statement is kept for the next one of the same `sql`, which is told by its address:
  // it must outlive the database, as a literal does.
  sqlite3_stmt* Compile(const char* sql);
  void Keep(const char* sql, sqlite3_stmt* statement);

 private:
  sqlite3* handle_ = nullptr;
  std::unordered_map<const char*, sqlite3_stmt*> kept_;  // null: under way
};

// Parameters are bound in order with `<<`; Step tells whether there is a row. `sql` is a literal.
class SqliteStatement {
 public:
  SqliteStatement(SqliteDatabase& database, const char* sql);
  ~SqliteStatement();
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  SqliteStatement& operator<<(std::int64_t value);
  SqliteStatement& operator<<(double value);
  SqliteStatement& operator<<(const QString& value);
  SqliteStatement& operator<<(const QByteArray& value);
  SqliteStatement& operator<<(std::nullptr_t null);

  bool Step();
  void Run();  // to its end

  std::int64_t Integer(int column) const;
  double Real(int column) const;
  QString Text(int column) const;
  QByteArray Blob(int column) const;
  bool IsNull(int column) const;

 private:
  void Check(int code) const;

  SqliteDatabase& database_;
  const char* sql_;
  sqlite3_stmt* statement_;
  int nextParameter_ = 1;
  // Texts that are bound, as far as there is room: most rows need no other memory.
  std::array<char, 1024> texts_;
  std::size_t textBytes_ = 0;
};

// Rolls back unless it was committed.
class SqliteTransaction {
 public:
  explicit SqliteTransaction(SqliteDatabase& database);
  ~SqliteTransaction();
  SqliteTransaction(const SqliteTransaction&) = delete;
  SqliteTransaction& operator=(const SqliteTransaction&) = delete;

  void Commit();

 private:
  SqliteDatabase& database_;
  bool open_ = true;
};

}  // namespace vardell::server
