// Takes TCP connections and reads request frames off them: what the listeners for agents and for
// kill requests have in common. Served on the io_context, the frames of a connection one after the
// other.
//
// A malformed frame closes the connection; so does a client that leaves more than
// kMaxUnsentReplyBytes of replies unread, and one of this machine whose user cannot be told. A
// silent one is never closed, but one whose machine has gone without a word is, after about ten
// minutes. Of too many connections of one address, or of one user of this machine, the oldest goes.
// Each closing for a reason is a line for the log, up to a few a second.
//
// However many frames one connection sends, the others have a turn after a few of them. An idle
// connection costs some 300 bytes.
#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "link/Frame.h"
#include "server/Log.h"

namespace boost::asio {
class io_context;
}

namespace vardell::server {

struct AgentConnection;

inline constexpr std::chrono::milliseconds kLongestReplyDelay{800};

struct RequestOutcome {
  QByteArray reply;                // whole, with its length; empty where none is due
  std::optional<QString> problem;  // why the connection must be closed
  bool isUnderWay = false;         // nothing more is read off the connection until ReadOn
  // The reply shows the change of this number, and is kept back until Release tells that it is
  // stored, but not longer than kLongestReplyDelay; replies keep their order. 0: it goes at once.
  std::uint64_t after = 0;
};

// Why a connection was closed.
enum class ConnectionEnd {
  ByPeer,
  UnknownUser,    // of this machine, and nobody can tell whose
  TooMany,        // of all peers: it was not taken
  TooManyOfPeer,  // the oldest of one peer went for a newer one
  Malformed,      // a frame
  Refused,        // the request: RequestOutcome::problem
  Unread,         // it leaves its replies unread
  Last = Unread,
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
    std::size_t mostOfOneUser = 0;  // of this machine; 0: as of one peer
    // Asked right after accept of a connection from this machine.
    std::function<std::optional<std::uint32_t>(int socket)> userBehind;
    std::function<RequestOutcome(const AgentConnection& from, const RequestFrame& frame)> handle;
    std::function<void(const AgentConnection& connection)> opened;  // may be empty
    std::function<void(std::uint64_t connection)> closed;           // may be empty
    // Of each connection that was accepted, once, whether or not it was `opened`; may be empty.
    std::function<void(ConnectionEnd why)> ended;
    LogHook log;  // may be empty
  };

  // Listens at once. Throws std::runtime_error with a line for people when it cannot.
  FrameListener(boost::asio::io_context& network, Options options);
  // Closes every connection; none of the options' functions is called from then on.
  ~FrameListener();

  // Goes on with a connection whose request was under way, if it is still there.
  void ReadOn(std::uint64_t connection);

  // The changes up to this number are stored. May be called by the options' functions; a number
  // below an earlier one changes nothing.
  void Release(std::uint64_t stored);

  std::uint16_t Port() const;
  QString Address() const;  // "127.0.0.1:40001"
  int Connections() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the handlers that are still in the io_context's queue
};

}  // namespace vardell::server
