// A peer on 127.0.0.1, or on a socket file, that does to each connection what the test's script
// says: answer, lie, cut, reset, fall silent. Each connection has a thread of its own; every call
// of a script waits in poll(2) and gives up when the peer goes, so that nothing hangs when a test
// fails.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QtEndian>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "link/Frame.h"

namespace vardell::test {

// One accepted connection, in the hands of its script. Closed when the script returns.
class PeerConnection {
 public:
  PeerConnection(int descriptor, int stop) : descriptor_(descriptor), stop_(stop) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  ~PeerConnection() { Close(); }
  PeerConnection(const PeerConnection&) = delete;
  PeerConnection& operator=(const PeerConnection&) = delete;

  // The next request frame, whole; empty when the other side or the peer has gone.
  QByteArray ReadFrame() {
    const QByteArray length = ReadBytes(4);
    if (length.size() < 4) return {};
    QByteArray frame = length + ReadBytes(qFromBigEndian<std::uint32_t>(length.constData()) - 4);
    recorded(frame);
    return frame;
  }

  // Fewer where the other side or the peer goes before.
  QByteArray ReadBytes(std::int64_t wanted) {
    QByteArray bytes;
    while (bytes.size() < wanted && Ready(POLLIN)) {
      char chunk[4096];
      const auto most = std::min<std::int64_t>(wanted - bytes.size(), sizeof chunk);
      const ssize_t count = recv(descriptor_, chunk, static_cast<std::size_t>(most), 0);
      if (count <= 0) break;
      bytes.append(chunk, count);
    }
    return bytes;
  }

  // False when not all of it could be sent any more.
  bool Send(const QByteArray& bytes) {
    for (qsizetype sent = 0; sent < bytes.size();) {
      if (!Ready(POLLOUT)) return false;
      const ssize_t count = send(descriptor_, bytes.constData() + sent,
                                 static_cast<std::size_t>(bytes.size() - sent), MSG_NOSIGNAL);
      if (count < 0) return false;
      sent += count;
    }
    return true;
  }

  // Each byte in a packet of its own.
  void SendByteByByte(const QByteArray& bytes) {
    for (const char byte : bytes) {
      if (!Send(QByteArray(1, byte))) return;
      Pause(std::chrono::milliseconds(1));
    }
  }

  // `length` in the length field, then bytes without end for as long as somebody takes them.
  void Flood(std::uint32_t length) {
    QByteArray field(4, '\0');
    qToBigEndian(length, field.data());
    bool taken = Send(field);
    for (const QByteArray block(16384, 'x'); taken;) taken = Send(block);
  }

  // Reads nothing until the peer goes.
  void HoldUntilPeerStops() { Pause(std::chrono::hours(1)); }

  void Pause(std::chrono::milliseconds duration) {
    pollfd stop{stop_, POLLIN, 0};
    poll(&stop, 1, static_cast<int>(duration.count()));
  }

  // Closes with a reset instead of an end.
  void Reset() {
    const linger none{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    Close();
  }

  void Close() {
    if (descriptor_ >= 0) close(descriptor_);
    descriptor_ = -1;
  }

  std::function<void(const QByteArray&)> recorded;  // a request that was read

 private:
  bool Ready(short events) {
    pollfd polled[] = {{descriptor_, events, 0}, {stop_, POLLIN, 0}};
    return descriptor_ >= 0 && poll(polled, 2, -1) > 0 && polled[1].revents == 0;
  }

  int descriptor_;
  int stop_;
};

class ScriptedPeer {
 public:
  using Script = std::function<void(PeerConnection&)>;

  // The first connection gets the first script, and so on; the last script serves all further ones.
  explicit ScriptedPeer(std::vector<Script> scripts, const QString& path = {})
      : scripts_(std::move(scripts)), listener_(Listen(path)) {
    acceptor_ = std::thread([this] { Accept(); });
  }
  ~ScriptedPeer() {
    eventfd_write(stop_, 1);
    acceptor_.join();
    for (std::thread& thread : connections_) thread.join();
    close(listener_);
    close(stop_);
  }
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  std::uint16_t Port() const { return port_; }

  // All requests that scripts have read so far.
  std::vector<QByteArray> Frames() const {
    const std::lock_guard lock(mutex_);
    return frames_;
  }
  // As soon as there are `count` of them, or after ten seconds what there is.
  std::vector<QByteArray> WaitForFrames(std::size_t count) const {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return frames_.size() >= count; });
    return frames_;
  }
  std::size_t ConnectionCount() const {
    const std::lock_guard lock(mutex_);
    return connections_.size();
  }

 private:
  int Listen(const QString& path) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (path.isEmpty()) {
      auto& in = reinterpret_cast<sockaddr_in&>(address);
      in = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    } else {
      auto& un = reinterpret_cast<sockaddr_un&>(address);
      un.sun_family = AF_UNIX;
      std::ranges::copy(QFile::encodeName(path), un.sun_path);
    }
    auto* plain = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(plain->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const socklen_t room = path.isEmpty() ? sizeof(sockaddr_in) : sizeof(sockaddr_un);
    if (bind(listener, plain, room) != 0 || listen(listener, 16) != 0 ||
        getsockname(listener, plain, &size) != 0)
      throw std::runtime_error("the scripted peer cannot listen");
    port_ = ntohs(reinterpret_cast<sockaddr_in*>(plain)->sin_port);
    return listener;
  }

  void Accept() {
    for (;;) {
      pollfd polled[] = {{listener_, POLLIN, 0}, {stop_, POLLIN, 0}};
      poll(polled, 2, -1);
      if (polled[1].revents != 0) return;
      const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (descriptor < 0) continue;
      const std::lock_guard lock(mutex_);
      const std::size_t index = std::min(connections_.size(), scripts_.size() - 1);
      connections_.emplace_back([this, descriptor, index] { Serve(descriptor, index); });
    }
  }

  void Serve(int descriptor, std::size_t index) {
    PeerConnection connection(descriptor, stop_);
    connection.recorded = [this](const QByteArray& frame) {
      const std::lock_guard lock(mutex_);
      frames_.push_back(frame);
      changed_.notify_all();
    };
    scripts_[index](connection);
  }

  const std::vector<Script> scripts_;
  int stop_ = eventfd(0, EFD_CLOEXEC);
  std::uint16_t port_ = 0;
  int listener_;
  std::thread acceptor_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::thread> connections_;
  std::vector<QByteArray> frames_;
};

// Scripts that several tests want.

// Answers every fetch and query with `body`; takes every other request.
inline ScriptedPeer::Script AnswerWith(const QByteArray& body) {
  return [body](PeerConnection& peer) {
    for (QByteArray frame = peer.ReadFrame(); !frame.isEmpty(); frame = peer.ReadFrame()) {
      const auto kind = static_cast<RequestKind>(frame[4]);
      if (kind == RequestKind::FetchLimits || kind == RequestKind::SingleQuery ||
          kind == RequestKind::DictionaryQuery)
        peer.Send(BuildReply(body));
    }
  };
}

// Takes requests and never answers.
inline void StaySilent(PeerConnection& peer) {
  while (!peer.ReadFrame().isEmpty()) {
  }
}

}  // namespace vardell::test
