// The inside of FrameListener: FrameListener.cpp has its turns and frames, FrameAccepting.cpp new
// connections, FrameReplies.cpp what goes out.
#pragma once

#include <sys/epoll.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/intrusive/list.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Common Sources/Caps.h"
#include "server/FrameListener.h"
#include "server/Household.h"

namespace vardell::server {

inline constexpr std::size_t kBytesPerRead = 4096;

class FrameSocket {
 public:
  explicit FrameSocket(int fd = -1) : fd_(fd) {}
  ~FrameSocket() { Close(); }
  FrameSocket(FrameSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FrameSocket& operator=(FrameSocket&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  int Get() const { return fd_; }
  bool IsOpen() const { return fd_ >= 0; }
  void Close() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

 private:
  int fd_;
};

struct HeldReply {
  QByteArray reply;
  std::uint64_t after = 0;
  std::chrono::steady_clock::time_point latest;
};

struct FramePeer;

// 10,000 of them are idle: what only a busy one needs is allocated by a busy one.
struct FrameConnection : boost::intrusive::list_base_hook<> {
  FrameSocket socket;
  std::uint32_t watched = EPOLLIN;
  bool isWaiting = false;  // for ReadOn
  bool isQueued = false;   // for its next turn; `received` may hold whole frames
  AgentConnection agent;
  FramePeer* peer = nullptr;
  QByteArray received;  // less than a frame and a read
  QByteArray unsent;
  std::vector<HeldReply> held;  // behind `unsent`
  std::size_t heldBytes = 0;

  std::size_t Unread() const { return static_cast<std::size_t>(unsent.size()) + heldBytes; }
};
// Held by the map, and by whoever calls what might close it.
using FrameConnectionPtr = std::shared_ptr<FrameConnection>;

// Whose connections count together.
struct FramePeer {
  QString name;
  boost::intrusive::list<FrameConnection> connections;  // oldest first
};

// The sockets are in an epoll set of their own, which the io_context watches as one descriptor: an
// asio socket with its buffer and pending operations takes many times the memory.
struct FrameListener::Impl : std::enable_shared_from_this<Impl> {
  Impl(boost::asio::io_context& context, Options given);

  void Listen();
  void Await();
  void TakeTurn();
  void Serve(std::uint64_t id, std::uint32_t events);
  bool Watch(int socket, int operation, std::uint64_t id, std::uint32_t events);
  void WatchFor(FrameConnection& connection, std::uint32_t events);
  FrameConnectionPtr Find(std::uint64_t id) const;

  void AcceptSome();
  void AcceptAgainLater();
  void Admit(FrameSocket socket);
  bool Identify(FrameConnection& connection, QString* sharedBy);
  void MakeRoomFor(const QString& sharedBy, std::size_t most);

  void Read(const FrameConnectionPtr& connection);
  void HandleFrames(const FrameConnectionPtr& connection, QByteArrayView bytes);
  bool HandleFrame(const FrameConnectionPtr& connection, const RequestFrame& frame);
  void Queue(FrameConnection& connection);
  void GoOnLater();
  void GoOn();

  void Reply(const FrameConnectionPtr& connection, const RequestOutcome& outcome);
  void Flush(const FrameConnectionPtr& connection);
  void Release(std::uint64_t stored);
  void ReleaseLate();
  void AwaitLate();
  void ReleaseOf(const FrameConnectionPtr& connection, std::chrono::steady_clock::time_point now);
  void Enlist(const FrameConnection& connection);
  void Unlist(const FrameConnection& connection);

  void Drop(const FrameConnectionPtr& connection, ConnectionEnd end = ConnectionEnd::ByPeer);
  void DropBecause(const FrameConnectionPtr& connection, ConnectionEnd end, const QString& why);
  void Ended(ConnectionEnd end) const;
  void Log(const LogEvent& event);
  void Stop();

  boost::asio::io_context& network;
  boost::asio::posix::stream_descriptor readiness;  // the epoll set
  FrameSocket listening;
  boost::asio::ip::tcp::endpoint endpoint;
  boost::asio::steady_timer pause;
  Options options;
  std::unordered_map<std::uint64_t, FrameConnectionPtr> connections;
  std::unordered_map<QString, FramePeer> peers;
  std::uint64_t lastId = 0;
  std::array<char, kMaxRequestFrameBytes + kBytesPerRead> buffer;  // of the read that is handled
  std::deque<std::uint64_t> queued;  // who has its next turn without a read
  bool stopped = false;

  // Of each connection that keeps replies back: its first one.
  std::set<std::pair<std::uint64_t, std::uint64_t>> heldByAfter;  // with the connection's id
  std::set<std::pair<std::chrono::steady_clock::time_point, std::uint64_t>> heldByTime;
  std::uint64_t released = 0;
  boost::asio::steady_timer lateTimer;
  bool awaitsLate = false;
  std::chrono::steady_clock::time_point nextLateLine;

  std::chrono::steady_clock::time_point logWindow;
  int linesInWindow = 0;
};

}  // namespace vardell::server
