#include "server/PostgresConnecting.h"

#include <libpq-fe.h>
#include <poll.h>

#include <QRegularExpression>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace vardell::server {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kLongestAttempt{5};
constexpr milliseconds kSlice{50};

// The limits are below those that the store waits itself, so that it hears of them.
constexpr char kSettings[] = R"sql(
SET search_path = vardell, pg_temp;
SET client_encoding = 'UTF8';
SET standard_conforming_strings = on;
SET DateStyle = 'ISO';
SET synchronous_commit = on;
SET default_transaction_isolation = 'read committed';
SET statement_timeout = '400ms';
SET lock_timeout = '300ms';
SET idle_in_transaction_session_timeout = '2s';
SET tcp_user_timeout = '3s';
SET tcp_keepalives_idle = 5;
SET tcp_keepalives_interval = 2;
SET tcp_keepalives_count = 3;
SET jit = off;
)sql";

// libpq tells the SQLSTATE of a refused connection only within its text.
PostgresError ErrorOf(PGconn* handle) {
  static const QRegularExpression kWithState(QStringLiteral(":  ([0-9A-Z]{5}): ([^\n]*)"));
  const QString text = QString::fromUtf8(PQerrorMessage(handle));
  const QRegularExpressionMatch match = kWithState.match(text);
  if (match.hasMatch()) {
    return {match.captured(2).toStdString(), match.captured(1).toLatin1()};
  }
  const QByteArray state = PQconnectionNeedsPassword(handle) ? "28P01" : "";
  return {text.simplified().toStdString(), state};
}

PGconn* Begin(const PostgresAddress& address) {
  // What stands before the address is what it may change.
  const char* const keywords[] = {
      "tcp_user_timeout", "keepalives_idle", "keepalives_interval", "keepalives_count",
      "dbname",           "client_encoding", "application_name",    nullptr};
  const char* const values[] = {"3000",           "5",    "2", "3", address.uri.constData(), "UTF8",
                                "vardell-server", nullptr};
  PGconn* handle = PQconnectStartParams(keywords, values, 1);
  if (!handle) throw std::bad_alloc();
  PQsetErrorVerbosity(handle, PQERRORS_VERBOSE);
  return handle;
}

struct Finisher {
  void operator()(PGconn* handle) const { PQfinish(handle); }
};

}  // namespace

struct PostgresConnecting::Attempt {
  void Run(const PostgresAddress& address);
  std::unique_ptr<PostgresConnection> Connect(const PostgresAddress& address);
  bool IsAbandoned();

  std::mutex mutex;
  std::condition_variable changed;
  bool isAbandoned = false;
  bool hasEnded = false;
  std::unique_ptr<PostgresConnection> connection;
  std::optional<PostgresError> error;
};

bool PostgresConnecting::Attempt::IsAbandoned() {
  const std::lock_guard lock(mutex);
  return isAbandoned;
}

std::unique_ptr<PostgresConnection> PostgresConnecting::Attempt::Connect(
    const PostgresAddress& address) {
  const PostgresDeadline deadline = PostgresClock::now() + kLongestAttempt;
  std::unique_ptr<PGconn, Finisher> handle(Begin(address));
  PostgresPollingStatusType next = PGRES_POLLING_WRITING;
  if (PQstatus(handle.get()) == CONNECTION_BAD) throw ErrorOf(handle.get());
  while (next != PGRES_POLLING_OK) {
    if (PostgresClock::now() >= deadline || IsAbandoned()) {
      throw PostgresError("no answer in time", {});
    }
    const short events = next == PGRES_POLLING_READING ? POLLIN : POLLOUT;
    pollfd wait{PQsocket(handle.get()), events, 0};
    if (poll(&wait, 1, static_cast<int>(kSlice.count())) < 1) continue;
    next = PQconnectPoll(handle.get());
    if (next == PGRES_POLLING_FAILED) throw ErrorOf(handle.get());
  }
  auto made = std::make_unique<PostgresConnection>(handle.release());
  made->Execute(kSettings, deadline);
  return made;
}

void PostgresConnecting::Attempt::Run(const PostgresAddress& address) {
  std::unique_ptr<PostgresConnection> made;
  std::optional<PostgresError> problem;
  try {
    made = Connect(address);
  } catch (const PostgresError& failed) {
    problem.emplace(failed);
  } catch (const std::exception& failed) {
    problem.emplace(failed.what(), QByteArray());
  }
  const std::lock_guard lock(mutex);
  connection = std::move(made);
  if (problem) error.emplace(*problem);
  hasEnded = true;
  changed.notify_all();
}

PostgresConnecting::PostgresConnecting(const PostgresAddress& address)
    : attempt_(std::make_shared<Attempt>()) {
  std::thread([attempt = attempt_, address] { attempt->Run(address); }).detach();
}

// Mostly it ends within a slice, and nothing of it is left when the program ends.
PostgresConnecting::~PostgresConnecting() {
  std::unique_lock lock(attempt_->mutex);
  attempt_->isAbandoned = true;
  attempt_->changed.wait_for(lock, 4 * kSlice, [this] { return attempt_->hasEnded; });
}

std::unique_ptr<PostgresConnection> PostgresConnecting::Wait(milliseconds most) {
  std::unique_lock lock(attempt_->mutex);
  attempt_->changed.wait_for(lock, most, [this] { return attempt_->hasEnded; });
  if (attempt_->error) throw *attempt_->error;
  return std::move(attempt_->connection);
}

}  // namespace vardell::server
