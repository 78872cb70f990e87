// Connecting to PostgreSQL without waiting for it: names are resolved and hosts tried on a thread
// of its own.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "server/PostgresAddress.h"

namespace vardell::server {

class PostgresConnecting {
 public:
  // Begins at once; gives up after five seconds.
  explicit PostgresConnecting(const PostgresAddress& address);
  // An attempt that has not ended goes on by itself and is then dropped.
  ~PostgresConnecting();
  PostgresConnecting(const PostgresConnecting&) = delete;
  PostgresConnecting& operator=(const PostgresConnecting&) = delete;

  // Waits this long for its end. Once: a connection with its settings made. Absent: not yet. Throws
  // PostgresError where the attempt has failed.
  std::unique_ptr<PostgresConnection> Wait(std::chrono::milliseconds most);

 private:
  struct Attempt;
  // Shared with the thread, which may outlive this: a look-up of a name cannot be stopped.
  std::shared_ptr<Attempt> attempt_;
};

}  // namespace vardell::server
