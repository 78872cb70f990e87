// The listener on 127.0.0.1 that ends processes for the agents of this machine (request kind 7).
// Connections are served on the io_context; the killing itself, which may wait for login1, runs on
// a thread of its own, one request after the other. No reply is ever sent.
//
// A connection whose user cannot be told, another kind of request or a malformed frame closes the
// connection; a text that is not a pid is refused. Each request is logged with who asked, for what,
// and the verdict: "kill-done", "kill-refused" or "kill-failed"; of a flood the first ones of each
// user, and how many there were (server/LogLimit.h).
#pragma once

#include <QString>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "link/VardellLoader.h"
#include "server/Log.h"
#include "server/PeerIdentity.h"
#include "server/SafeKill.h"

namespace boost::asio {
class io_context;
}

namespace vardell::server {

struct Metrics;

class KillServer {
 public:
  struct Options {
    std::uint16_t port = kKillPort;  // tests: 0 for any
    std::function<KillResult(pid_t pid, uid_t requester)>
        kill;  // on the other thread; empty: KillOnRequest
    std::function<std::optional<std::uint32_t>(int socket)> userBehind = UserBehind;
    LogHook log;                 // on the io_context's thread
    Metrics* metrics = nullptr;  // borrowed; may be absent
    std::chrono::milliseconds logMinute{60000};
  };

  // Listens at once. Throws std::runtime_error with a line for people when the port is taken.
  KillServer(boost::asio::io_context& network, Options options);
  // Closes every connection; waits for a kill under way.
  ~KillServer();

  std::uint16_t Port() const;
  int Connections() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the handlers that are still in the io_context's queue
};

}  // namespace vardell::server
