// Takes TCP connections and reads request frames off them: what the listeners for agents and for
// kill requests have in common. Served on the io_context, the frames of a connection one after the
// other.
//
// A malformed frame closes the connection; so does a client that leaves more than
// kMaxUnsentReplyBytes of replies unread, and one of this machine whose user cannot be told. A
// silent one is never closed. Of too many connections of one address, or of one user of this
// machine, the oldest goes. Each closing for a reason is a line for the log, up to a few a second.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "link/Frame.h"

namespace boost::asio {
class io_context;
}

namespace vardell::server {

struct AgentConnection;

struct RequestOutcome {
  QByteArray reply;                // whole, with its length; empty where none is due
  std::optional<QString> problem;  // why the connection must be closed
  bool isUnderWay = false;         // nothing more is read off the connection until ReadOn
  // The reply shows the change of this number, and is kept back until Release tells that it is
  // stored, but not longer than kLongestReplyDelay; replies keep their order. 0: it goes at once.
  std::uint64_t after = 0;
};

class FrameListener {
 public:
  struct Options {
    QString address;
    std::uint16_t port = 0;  // 0: any
    QString whose;           // "agents": who is listened for, to say when that cannot be
    QString advice;          // a sentence for that case
    std::size_t mostConnections = 0;
    std::size_t mostOfOnePeer = 0;
    // Asked right after accept of a connection from this machine.
    std::function<std::optional<std::uint32_t>(int socket)> userBehind;
    std::function<RequestOutcome(const AgentConnection& from, const RequestFrame& frame)> handle;
    std::function<void(const AgentConnection& connection)> opened;  // may be empty
    std::function<void(std::uint64_t connection)> closed;           // may be empty
    std::function<void(const QString& line)> log;                   // may be empty
  };

  // Listens at once. Throws std::runtime_error with a line for people when it cannot.
  FrameListener(boost::asio::io_context& network, Options options);
  // Closes every connection; none of the options' functions is called from then on.
  ~FrameListener();

  // Goes on with a connection whose request was under way, if it is still there.
  void ReadOn(std::uint64_t connection);

  // The changes up to this number are stored.
  void Release(std::uint64_t stored);

  std::uint16_t Port() const;
  QString Address() const;  // "127.0.0.1:40001"
  int Connections() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the handlers that are still in the io_context's queue
};

}  // namespace vardell::server
