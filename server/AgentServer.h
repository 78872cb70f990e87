// The listener that agents talk to: request kinds 1, 3 and 6, and 4 and 5, as docs/protocol.md has
// them. Served on the io_context, one request after the other, so that a fetch that follows a
// report on the same connection shows it, on disk.
//
// A malformed frame or payload, an unknown kind and a kill request close the connection; so does a
// client that leaves more than kMaxUnsentReplyBytes of replies unread. A silent one is never
// closed. Of too many connections of one address, or of one user of this machine, the oldest goes.
#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "server/PeerIdentity.h"

namespace boost::asio {
class io_context;
}

namespace vardell::server {

class Household;

class AgentServer {
 public:
  struct Options {
    QString address = QStringLiteral("0.0.0.0");
    std::uint16_t port = 0;  // 0: any
    // The user behind a connection from this machine, asked right after accept. Without an answer
    // the connection is closed.
    std::function<std::optional<std::uint32_t>(int socket)> userBehind = UserBehind;
    std::function<void(const QString& line)> log;
  };

  // Listens at once. Throws std::runtime_error with a line for people when it cannot.
  AgentServer(boost::asio::io_context& network, Household& household, Options options);
  // Closes every connection.
  ~AgentServer();

  std::uint16_t Port() const;
  QString Address() const;  // "127.0.0.1:40001"
  int Connections() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the handlers that are still in the io_context's queue
};

}  // namespace vardell::server
