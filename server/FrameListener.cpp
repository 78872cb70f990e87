#include "server/FrameListener.h"

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "server/FrameListenerImpl.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

// A client can make lines appear; beyond this many in a second they are only counted.
constexpr int kMaxLinesPerSecond = 20;

// What one turn takes before everything else of the io_context has its own.
constexpr int kEventsPerTurn = 64;
constexpr std::size_t kQueuedPerTurn = 64;
constexpr int kFramesPerTurn = 16;
// Of frames that take long, fewer: the others have their turns meanwhile.
constexpr std::chrono::milliseconds kTimePerTurn{1};
constexpr std::chrono::milliseconds kTimeOfQueued{10};

}  // namespace

FrameListener::Impl::Impl(asio::io_context& context, Options given)
    : network(context),
      readiness(context),
      pause(context),
      options(std::move(given)),
      lateTimer(context) {
  const int set = epoll_create1(EPOLL_CLOEXEC);
  if (set < 0) {
    throw std::runtime_error(std::string("cannot wait for connections: ") + std::strerror(errno));
  }
  readiness.assign(set);
}

// --- Turns.

void FrameListener::Impl::Await() {
  readiness.async_wait(asio::posix::stream_descriptor::wait_read,
                       [self = shared_from_this()](const error_code& error) {
                         if (self->stopped || error) return;
                         self->TakeTurn();
                         if (!self->stopped) self->Await();
                       });
}

void FrameListener::Impl::TakeTurn() {
  std::array<epoll_event, kEventsPerTurn> ready;
  const int count = epoll_wait(readiness.native_handle(), ready.data(), kEventsPerTurn, 0);
  for (int i = 0; i < count && !stopped; ++i) Serve(ready[i].data.u64, ready[i].events);
}

// Ids count from 1; 0 is the listening socket.
void FrameListener::Impl::Serve(std::uint64_t id, std::uint32_t events) {
  if (id == 0) return AcceptSome();
  const FrameConnectionPtr connection = Find(id);
  if (!connection) return;
  if (events & EPOLLOUT) Flush(connection);
  if (!connection->socket.IsOpen() || connection->isQueued) return;
  const bool hasFailed = (events & (EPOLLERR | EPOLLHUP)) != 0;
  if (connection->isWaiting) {
    return hasFailed ? Drop(connection) : WatchFor(*connection, connection->watched & ~EPOLLIN);
  }
  if (hasFailed || (events & EPOLLIN)) Read(connection);
}

bool FrameListener::Impl::Watch(int socket, int operation, std::uint64_t id, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  return epoll_ctl(readiness.native_handle(), operation, socket, &event) == 0;
}

void FrameListener::Impl::WatchFor(FrameConnection& connection, std::uint32_t events) {
  if (connection.watched == events) return;
  connection.watched = events;
  (void)Watch(connection.socket.Get(), EPOLL_CTL_MOD, connection.agent.id, events);
}

FrameConnectionPtr FrameListener::Impl::Find(std::uint64_t id) const {
  const auto found = connections.find(id);
  return found == connections.end() ? nullptr : found->second;
}

// --- Frames.

void FrameListener::Impl::Read(const FrameConnectionPtr& connection) {
  const auto before = static_cast<std::size_t>(connection->received.size());
  const ssize_t count =
      recv(connection->socket.Get(), buffer.data() + before, kBytesPerRead, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return Drop(connection);
  std::copy(connection->received.cbegin(), connection->received.cend(), buffer.begin());
  connection->received = QByteArray();
  HandleFrames(connection, QByteArrayView(buffer.data(), static_cast<qsizetype>(before) + count));
}

void FrameListener::Impl::HandleFrames(const FrameConnectionPtr& connection, QByteArrayView bytes) {
  FrameStatus status = FrameStatus::Complete;
  const Clock::time_point end = Clock::now() + kTimePerTurn;
  for (int i = 0; i < kFramesPerTurn && !connection->isWaiting; ++i) {
    if (i > 0 && Clock::now() > end) break;
    RequestFrame frame;
    status = TakeFrame(&bytes, &frame);
    if (status != FrameStatus::Complete) break;
    if (!HandleFrame(connection, frame)) return;
  }
  connection->received = bytes.toByteArray();
  Flush(connection);
  if (!connection->socket.IsOpen()) return;
  if (status == FrameStatus::Malformed) {
    return DropBecause(connection, ConnectionEnd::Malformed, QStringLiteral("a malformed frame"));
  }
  const bool mayHaveMore = status == FrameStatus::Complete && !bytes.isEmpty();
  if (mayHaveMore && !connection->isWaiting) Queue(*connection);
}

bool FrameListener::Impl::HandleFrame(const FrameConnectionPtr& connection,
                                      const RequestFrame& frame) {
  const RequestOutcome outcome = options.handle(connection->agent, frame);
  if (stopped || !connection->socket.IsOpen()) return false;
  if (outcome.problem) {
    Flush(connection);
    DropBecause(connection, ConnectionEnd::Refused, *outcome.problem);
    return false;
  }
  connection->isWaiting = outcome.isUnderWay;
  if (!outcome.reply.isEmpty()) Reply(connection, outcome);
  return connection->socket.IsOpen();
}

void FrameListener::Impl::Queue(FrameConnection& connection) {
  connection.isQueued = true;
  queued.push_back(connection.agent.id);
  if (queued.size() == 1) GoOnLater();
}

void FrameListener::Impl::GoOnLater() {
  asio::post(network, [self = shared_from_this()] {
    if (!self->stopped) self->GoOn();
  });
}

void FrameListener::Impl::GoOn() {
  const std::size_t most = std::min(queued.size(), kQueuedPerTurn);
  const Clock::time_point end = Clock::now() + kTimeOfQueued;
  std::size_t count = 0;
  while (count < most && !stopped && Clock::now() < end) {
    const std::uint64_t id = queued[count++];
    const FrameConnectionPtr connection = Find(id);
    if (!connection) continue;
    connection->isQueued = false;
    const QByteArray bytes = std::exchange(connection->received, QByteArray());
    HandleFrames(connection, bytes);
  }
  queued.erase(queued.begin(), queued.begin() + static_cast<std::ptrdiff_t>(count));
  if (!queued.empty()) GoOnLater();
}

// --- Ends.

void FrameListener::Impl::Drop(const FrameConnectionPtr& connection, ConnectionEnd end) {
  if (!connection->socket.IsOpen()) return;
  Unlist(*connection);
  connection->socket.Close();
  FramePeer& peer = *connection->peer;
  peer.connections.erase(peer.connections.iterator_to(*connection));
  if (peer.connections.empty()) peers.erase(peers.find(QString(peer.name)));
  connections.erase(connection->agent.id);
  if (options.closed) options.closed(connection->agent.id);
  Ended(end);
}

void FrameListener::Impl::DropBecause(const FrameConnectionPtr& connection, ConnectionEnd end,
                                      const QString& why) {
  LogEvent event("connection-closed", LogPriority::Notice,
                 QStringLiteral("connection from %1 closed: %2").arg(connection->peer->name, why));
  event.peerUid = connection->agent.peerUid;
  Log(event);
  Drop(connection, end);
}

void FrameListener::Impl::Ended(ConnectionEnd end) const {
  if (options.ended && !stopped) options.ended(end);
}

void FrameListener::Impl::Log(const LogEvent& event) {
  if (!options.log || stopped) return;
  const auto now = Clock::now();
  if (now - logWindow >= std::chrono::seconds(1)) {
    const int dropped = linesInWindow - kMaxLinesPerSecond;
    if (dropped > 0) {
      options.log(QStringLiteral("%1 more lines like these").arg(dropped));
    }
    logWindow = now;
    linesInWindow = 0;
  }
  if (++linesInWindow <= kMaxLinesPerSecond) options.log(event);
}

void FrameListener::Impl::Stop() {
  stopped = true;
  error_code ignored;
  readiness.close(ignored);
  listening.Close();
  pause.cancel();
  lateTimer.cancel();
  for (const auto& [id, connection] : connections) connection->socket.Close();
  for (auto& [name, peer] : peers) peer.connections.clear();
  heldByAfter.clear();
  heldByTime.clear();
  connections.clear();
}

FrameListener::FrameListener(asio::io_context& network, Options options)
    : impl_(std::make_shared<Impl>(network, std::move(options))) {
  impl_->Listen();
  (void)impl_->Watch(impl_->listening.Get(), EPOLL_CTL_ADD, 0, EPOLLIN);
  impl_->Await();
}

FrameListener::~FrameListener() {
  impl_->Stop();
}

void FrameListener::ReadOn(std::uint64_t connection) {
  const FrameConnectionPtr kept = impl_->Find(connection);
  if (!kept) return;
  kept->isWaiting = false;
  impl_->WatchFor(*kept, kept->watched | EPOLLIN);
  if (!kept->isQueued) impl_->Queue(*kept);
}

void FrameListener::Release(std::uint64_t stored) {
  impl_->Release(stored);
}

std::uint16_t FrameListener::Port() const {
  return impl_->endpoint.port();
}

QString FrameListener::Address() const {
  const asio::ip::address address = impl_->endpoint.address();
  const QString text = QString::fromStdString(address.to_string());
  return (address.is_v6() ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2"))
      .arg(text)
      .arg(Port());
}

int FrameListener::Connections() const {
  return static_cast<int>(impl_->connections.size());
}

}  // namespace vardell::server
