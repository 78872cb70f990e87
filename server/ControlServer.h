// The control socket of docs/control-api.md: HTTP/1.1 with JSON on a Unix stream socket, served on
// the io_context. Slow, silent and greedy clients are bounded by the caps of Common Sources/Caps.h
// and by time; each user has a share of the connections, and root has its own.
#pragma once

#include <QDateTime>
#include <QString>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "server/Authorisation.h"

namespace boost::asio {
class io_context;
}

namespace vardell::server {

class Household;
struct Metrics;

// What GET /v1/status shows besides what the Household knows.
struct ServerStatus {
  QString version;
  QString address;                   // where agents are answered: "127.0.0.1:40001"
  std::optional<QString> published;  // service name
  int agents = 0;                    // connections
  QDateTime started;
  int killConnections = 0;  // of those that ask for the end of a process
};

class ControlServer {
 public:
  struct Options {
    QString path;  // of the socket; its folder is made where it is missing
    std::function<ServerStatus()> status;
    Metrics* metrics = nullptr;                            // borrowed; absent: all are 0
    std::function<Requester(uid_t uid, gid_t gid)> whoIs;  // empty: LookUpRequester
    std::chrono::milliseconds idleLimit{60000};     // for the next request's header to be complete
    std::chrono::milliseconds requestLimit{10000};  // for its body, and for taking the answer
  };

  // Listens at once. A socket file that nobody answers on is replaced. Throws std::runtime_error
  // with a line for people when that cannot be.
  ControlServer(boost::asio::io_context& network, Household& household, Options options);
  // Closes every connection and removes the socket file.
  ~ControlServer();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the handlers that are still in the io_context's queue
};

}  // namespace vardell::server
