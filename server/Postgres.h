// PostgreSQL with ownership: a connection, its statements, their parameters and results. Nothing
// here waits beyond a deadline. Everything that fails throws PostgresError. One thread at a time.
//
// Values go as parameters, in binary form, never as text of a statement.
#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

struct pg_conn;
struct pg_result;

namespace vardell::server {

using PostgresClock = std::chrono::steady_clock;
using PostgresDeadline = PostgresClock::time_point;

inline PostgresDeadline In(std::chrono::milliseconds time) {
  return PostgresClock::now() + time;
}

class PostgresError : public std::runtime_error {
 public:
  PostgresError(const std::string& message, const QByteArray& itsState)
      : std::runtime_error(message), sqlState(itsState) {}

  // Empty: the connection was lost, or there was no answer in time. What was sent may have been
  // done, or may be done yet.
  const QByteArray sqlState;
};

// --- Parameters. PostgreSQL has no text with a zero character in it: each becomes U+FFFD.

QByteArray PostgresParameter(const QString& text);
QByteArray PostgresParameter(std::int64_t number);
QByteArray PostgresParameter(bool flag);

enum class PostgresType : std::uint32_t {  // PostgreSQL's numbers
  Flag = 16,
  Blob = 17,
  Integer = 20,
  Text = 25,
  Real = 701,
};

// Rows for `unnest`: each column is one parameter, an array.
class PostgresTable {
 public:
  PostgresTable(std::initializer_list<PostgresType> types);

  template <typename... Values>
  void Add(const Values&... values) {
    std::size_t column = 0;
    (Append(columns_[column++], values), ...);
    ++rows_;
  }
  bool IsEmpty() const { return rows_ == 0; }
  std::vector<QByteArray> Parameters() const;

 private:
  struct Column {
    PostgresType type;
    QByteArray values;
    bool hasNull = false;
  };

  static void Append(Column& column, const QString& value);
  static void Append(Column& column, const QByteArray& value);
  static void Append(Column& column, std::int64_t value);
  static void Append(Column& column, double value);
  static void Append(Column& column, bool value);
  static void Append(Column& column, const std::optional<std::int64_t>& value);

  std::vector<Column> columns_;
  std::uint32_t rows_ = 0;
};

// A statement and its parameters. The text must outlive the connection: it is prepared once.
struct PostgresCall {
  const char* sql = nullptr;
  std::vector<QByteArray> parameters = {};
};

// Columns must be bigint, double precision, text, bytea or boolean, as they are read.
class PostgresResult {
 public:
  explicit PostgresResult(pg_result* result) : result_(result) {}

  int Rows() const;
  std::int64_t Integer(int row, int column) const;
  double Real(int row, int column) const;
  QString Text(int row, int column) const;
  QByteArray Blob(int row, int column) const;
  bool Flag(int row, int column) const;
  bool IsNull(int row, int column) const;

 private:
  struct Deleter {
    void operator()(pg_result* result) const;
  };
  std::unique_ptr<pg_result, Deleter> result_;
};

class PostgresConnection {
 public:
  // Takes over a connection that was made.
  explicit PostgresConnection(pg_conn* handle);
  ~PostgresConnection();
  PostgresConnection(const PostgresConnection&) = delete;
  PostgresConnection& operator=(const PostgresConnection&) = delete;

  // All of the calls in one round trip; one result for each. What follows one that fails is not
  // done. Once an answer did not come in time the connection is closed.
  std::vector<PostgresResult> Exchange(const std::vector<PostgresCall>& calls,
                                       PostgresDeadline deadline);
  // Statements without parameters, whose results do not matter.
  void Execute(const char* statements, PostgresDeadline deadline);
  // Ends the transaction that a failure has left open, if any; closes the connection where that
  // takes long.
  void RollBack() noexcept;

  bool IsOpen() const { return handle_ != nullptr; }
  QString Setting(const char* name) const;  // that the server reports by itself: "server_encoding"

 private:
  struct Answers;

  void Send(const std::vector<PostgresCall>& calls, Answers* answers);
  void Receive(Answers* answers, PostgresDeadline deadline);
  pg_result* Next(PostgresDeadline deadline);
  void WaitForInput(PostgresDeadline deadline);
  [[noreturn]] void Lose(const std::string& why);
  void Close();

  pg_conn* handle_;
  std::unordered_map<const char*, std::string> prepared_;  // statement: its name
  int names_ = 0;                                          // that were given
};

}  // namespace vardell::server
