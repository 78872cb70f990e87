#include "server/Postgres.h"

#include <libpq-fe.h>
#include <poll.h>

#include <QtEndian>
#include <algorithm>
#include <bit>

namespace vardell::server {
namespace {

constexpr int kBinary = 1;
constexpr std::chrono::milliseconds kRollingBack{200};

template <typename Number>
void AppendNumber(QByteArray& bytes, Number number) {
  const Number big = qToBigEndian(number);
  bytes.append(reinterpret_cast<const char*>(&big), sizeof big);
}

template <typename Number>
Number ReadNumber(const PGresult* result, int row, int column) {
  if (PQgetlength(result, row, column) != int{sizeof(Number)}) {
    throw PostgresError("a column is of another type than expected", "42804");
  }
  return qFromBigEndian<Number>(PQgetvalue(result, row, column));
}

void AppendSized(QByteArray& bytes, const QByteArray& value) {
  AppendNumber(bytes, static_cast<std::int32_t>(value.size()));
  bytes.append(value);
}

PostgresError ErrorOf(const PGresult* result) {
  const char* state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
  const char* message = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
  return {message ? message : PQresultErrorMessage(result), QByteArray(state)};
}

std::uint32_t ArrayFlags(bool hasNull) {
  return hasNull ? 1 : 0;
}

}  // namespace

QByteArray PostgresParameter(const QString& text) {
  constexpr QChar zero(0);
  if (!text.contains(zero)) return text.toUtf8();
  return QString(text).replace(zero, QChar(QChar::ReplacementCharacter)).toUtf8();
}

QByteArray PostgresParameter(std::int64_t number) {
  QByteArray bytes;
  AppendNumber(bytes, number);
  return bytes;
}

QByteArray PostgresParameter(bool flag) {
  return QByteArray(1, flag ? '\1' : '\0');
}

PostgresTable::PostgresTable(std::initializer_list<PostgresType> types) {
  for (const PostgresType type : types) columns_.push_back({type, {}});
}

void PostgresTable::Append(Column& column, const QString& value) {
  AppendSized(column.values, PostgresParameter(value));
}

void PostgresTable::Append(Column& column, const QByteArray& value) {
  AppendSized(column.values, value);
}

void PostgresTable::Append(Column& column, std::int64_t value) {
  AppendSized(column.values, PostgresParameter(value));
}

void PostgresTable::Append(Column& column, double value) {
  AppendSized(column.values, PostgresParameter(std::bit_cast<std::int64_t>(value)));
}

void PostgresTable::Append(Column& column, bool value) {
  AppendSized(column.values, PostgresParameter(value));
}

void PostgresTable::Append(Column& column, const std::optional<std::int64_t>& value) {
  if (value) return Append(column, *value);
  column.hasNull = true;
  AppendNumber(column.values, std::int32_t{-1});
}

std::vector<QByteArray> PostgresTable::Parameters() const {
  std::vector<QByteArray> parameters;
  for (const Column& column : columns_) {
    QByteArray& array = parameters.emplace_back();
    const std::uint32_t dimensions = rows_ == 0 ? 0 : 1;
    AppendNumber(array, dimensions);
    AppendNumber(array, ArrayFlags(column.hasNull));
    AppendNumber(array, static_cast<std::uint32_t>(column.type));
    if (dimensions == 0) continue;
    AppendNumber(array, rows_);
    AppendNumber(array, std::uint32_t{1});  // the first element's index
    array.append(column.values);
  }
  return parameters;
}

void PostgresResult::Deleter::operator()(pg_result* result) const {
  PQclear(result);
}

int PostgresResult::Rows() const {
  return PQntuples(result_.get());
}

std::int64_t PostgresResult::Integer(int row, int column) const {
  return ReadNumber<std::int64_t>(result_.get(), row, column);
}

double PostgresResult::Real(int row, int column) const {
  return std::bit_cast<double>(Integer(row, column));
}

QString PostgresResult::Text(int row, int column) const {
  return QString::fromUtf8(PQgetvalue(result_.get(), row, column),
                           PQgetlength(result_.get(), row, column));
}

QByteArray PostgresResult::Blob(int row, int column) const {
  return QByteArray(PQgetvalue(result_.get(), row, column),
                    PQgetlength(result_.get(), row, column));
}

bool PostgresResult::Flag(int row, int column) const {
  return ReadNumber<std::uint8_t>(result_.get(), row, column) != 0;
}

bool PostgresResult::IsNull(int row, int column) const {
  return PQgetisnull(result_.get(), row, column) == 1;
}

// What is still to come, and what has come.
struct PostgresConnection::Answers {
  // Of what was sent, in order; the statement where it was only prepared.
  std::vector<const char*> preparing;
  std::vector<PostgresResult> results;
  std::optional<PostgresError> error;  // the first one

  void Take(PGresult* result, const char* prepared,
            std::unordered_map<const char*, std::string>* names);
};

void PostgresConnection::Answers::Take(PGresult* result, const char* prepared,
                                       std::unordered_map<const char*, std::string>* names) {
  PostgresResult owned(result);
  const ExecStatusType status = PQresultStatus(result);
  const bool isGood = status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
  if (!isGood) {
    if (!error) error.emplace(ErrorOf(result));
    if (prepared) names->erase(prepared);
  } else if (!prepared) {
    results.push_back(std::move(owned));
  }
}

PostgresConnection::PostgresConnection(pg_conn* handle) : handle_(handle) {
  PQsetnonblocking(handle_, 1);
  PQsetNoticeProcessor(
      handle_, [](void*, const char*) {}, nullptr);
}

PostgresConnection::~PostgresConnection() {
  Close();
}

void PostgresConnection::Close() {
  if (handle_) PQfinish(handle_);
  handle_ = nullptr;
}

void PostgresConnection::Lose(const std::string& why) {
  Close();
  throw PostgresError(why, {});
}

void PostgresConnection::Send(const std::vector<PostgresCall>& calls, Answers* answers) {
  bool isSent = PQenterPipelineMode(handle_) == 1;
  for (const PostgresCall& call : calls) {
    const auto [known, isNew] = prepared_.try_emplace(call.sql, "s" + std::to_string(names_));
    const char* name = known->second.c_str();
    if (isNew) {
      ++names_;
      answers->preparing.push_back(call.sql);
      isSent = isSent && PQsendPrepare(handle_, name, call.sql, 0, nullptr) == 1;
    }
    std::vector<const char*> values;
    std::vector<int> lengths;
    for (const QByteArray& parameter : call.parameters) {
      values.push_back(parameter.constData());
      lengths.push_back(static_cast<int>(parameter.size()));
    }
    const std::vector<int> formats(values.size(), kBinary);
    answers->preparing.push_back(nullptr);
    isSent =
        isSent && PQsendQueryPrepared(handle_, name, static_cast<int>(values.size()), values.data(),
                                      lengths.data(), formats.data(), kBinary) == 1;
  }
  if (!isSent || PQpipelineSync(handle_) != 1) Lose(PQerrorMessage(handle_));
}

void PostgresConnection::WaitForInput(PostgresDeadline deadline) {
  const int unsent = PQflush(handle_);
  if (unsent < 0) Lose(PQerrorMessage(handle_));
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - PostgresClock::now()).count();
  if (left <= 0) Lose("no answer in time");
  pollfd wait{PQsocket(handle_), static_cast<short>(unsent == 1 ? POLLIN | POLLOUT : POLLIN), 0};
  (void)poll(&wait, 1, static_cast<int>(std::min<std::int64_t>(left, 60000)));
  if ((wait.revents & ~POLLOUT) != 0 && PQconsumeInput(handle_) != 1) {
    Lose(PQerrorMessage(handle_));
  }
}

pg_result* PostgresConnection::Next(PostgresDeadline deadline) {
  (void)PQflush(handle_);
  while (PQisBusy(handle_) == 1) WaitForInput(deadline);
  PGresult* result = PQgetResult(handle_);
  if (PQstatus(handle_) != CONNECTION_OK) {
    const PostgresResult owned(result);
    Lose(PQerrorMessage(handle_));
  }
  return result;
}

void PostgresConnection::Receive(Answers* answers, PostgresDeadline deadline) {
  for (std::size_t next = 0;;) {
    PGresult* result = Next(deadline);
    if (!result) result = Next(deadline);  // there is nothing between two of them
    if (!result) Lose("fewer answers than questions");
    if (PQresultStatus(result) == PGRES_PIPELINE_SYNC) {
      PQclear(result);
      return;
    }
    if (next == answers->preparing.size()) {
      PQclear(result);
      Lose("more answers than questions");
    }
    answers->Take(result, answers->preparing[next++], &prepared_);
  }
}

std::vector<PostgresResult> PostgresConnection::Exchange(const std::vector<PostgresCall>& calls,
                                                         PostgresDeadline deadline) {
  if (!handle_) throw PostgresError("not connected", {});
  Answers answers;
  Send(calls, &answers);
  Receive(&answers, deadline);
  if (PQexitPipelineMode(handle_) != 1) Lose(PQerrorMessage(handle_));
  if (answers.error) throw *answers.error;
  return std::move(answers.results);
}

void PostgresConnection::Execute(const char* statements, PostgresDeadline deadline) {
  if (!handle_) throw PostgresError("not connected", {});
  if (PQsendQuery(handle_, statements) != 1) Lose(PQerrorMessage(handle_));
  std::optional<PostgresError> error;
  while (PGresult* result = Next(deadline)) {
    const PostgresResult owned(result);
    if (PQresultStatus(result) == PGRES_FATAL_ERROR && !error) error.emplace(ErrorOf(result));
  }
  if (error) throw *error;
}

void PostgresConnection::RollBack() noexcept {
  if (!handle_ || PQtransactionStatus(handle_) == PQTRANS_IDLE) return;
  try {
    Execute("ROLLBACK", In(kRollingBack));
  } catch (const PostgresError&) {
    Close();
  }
}

QString PostgresConnection::Setting(const char* name) const {
  return handle_ ? QString::fromUtf8(PQparameterStatus(handle_, name)) : QString();
}

}  // namespace vardell::server
