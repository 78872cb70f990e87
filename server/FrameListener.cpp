#include "server/FrameListener.h"

#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <QByteArray>
#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/intrusive/list.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Common Sources/Caps.h"
#include "server/Household.h"
#include "server/PeerIdentity.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kAcceptPause{1};
// A client can make lines appear; beyond this many in a second they are only counted.
constexpr int kMaxLinesPerSecond = 20;
constexpr std::chrono::seconds kTimeBetweenLateLines{60};

// What one turn takes before everything else of the io_context has its own.
constexpr int kEventsPerTurn = 64;
constexpr std::size_t kQueuedPerTurn = 64;
constexpr int kAcceptsPerTurn = 16;
constexpr int kFramesPerTurn = 16;
constexpr std::size_t kBytesPerRead = 4096;
constexpr qsizetype kBytesToGather = 64 << 10;

// A peer that has gone without a word is found out after the first and `kProbes` times the second.
constexpr int kSilenceBeforeProbes = 300;  // seconds
constexpr int kTimeBetweenProbes = 30;     // seconds
constexpr int kProbes = 10;
constexpr unsigned kLongestUnacknowledged = 600'000;  // milliseconds

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { Close(); }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
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
  Clock::time_point latest;
};

struct Peer;

// 10,000 of them are idle: what only a busy one needs is allocated by a busy one.
struct Connection : boost::intrusive::list_base_hook<> {
  Descriptor socket;
  std::uint32_t watched = EPOLLIN;
  bool isWaiting = false;  // for ReadOn
  bool isQueued = false;   // for its next turn; `received` may hold whole frames
  AgentConnection agent;
  Peer* peer = nullptr;
  QByteArray received;  // less than a frame and a read
  QByteArray unsent;
  std::vector<HeldReply> held;  // behind `unsent`
  std::size_t heldBytes = 0;

  std::size_t Unread() const { return static_cast<std::size_t>(unsent.size()) + heldBytes; }
};
// Held by the map, and by whoever calls what might close it.
using ConnectionPtr = std::shared_ptr<Connection>;

// Whose connections count together.
struct Peer {
  QString name;
  boost::intrusive::list<Connection> connections;  // oldest first
};

QString AddressText(const asio::ip::address& address) {
  if (address.is_v6() && address.to_v6().is_v4_mapped()) {
    const auto inner = asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
    return QString::fromStdString(inner.to_string());
  }
  return QString::fromStdString(address.to_string());
}

template <int level, int name>
void Set(tcp::acceptor& acceptor, int value) {
  acceptor.set_option(asio::detail::socket_option::integer<level, name>(value));
}

// Linux hands these on to the sockets that are accepted.
void SetOptionsOfConnections(tcp::acceptor& acceptor) {
  acceptor.set_option(tcp::no_delay(true));
  acceptor.set_option(asio::socket_base::keep_alive(true));
  Set<IPPROTO_TCP, TCP_KEEPIDLE>(acceptor, kSilenceBeforeProbes);
  Set<IPPROTO_TCP, TCP_KEEPINTVL>(acceptor, kTimeBetweenProbes);
  Set<IPPROTO_TCP, TCP_KEEPCNT>(acceptor, kProbes);
  Set<IPPROTO_TCP, TCP_USER_TIMEOUT>(acceptor, static_cast<int>(kLongestUnacknowledged));
}

}  // namespace

// The sockets are in an epoll set of their own, which the io_context watches as one descriptor: an
// asio socket with its buffer and pending operations takes many times the memory.
struct FrameListener::Impl : std::enable_shared_from_this<Impl> {
  Impl(asio::io_context& context, Options given);

  void Listen();
  void Await();
  void TakeTurn();
  void Serve(std::uint64_t id, std::uint32_t events);
  bool Watch(int socket, int operation, std::uint64_t id, std::uint32_t events);
  void WatchFor(Connection& connection, std::uint32_t events);
  ConnectionPtr Find(std::uint64_t id) const;

  void AcceptSome();
  void AcceptAgainLater();
  void Admit(Descriptor socket);
  bool Identify(Connection& connection, QString* sharedBy);
  void MakeRoomFor(const QString& sharedBy);

  void Read(const ConnectionPtr& connection);
  void HandleFrames(const ConnectionPtr& connection, QByteArrayView bytes);
  bool HandleFrame(const ConnectionPtr& connection, const RequestFrame& frame);
  void Queue(Connection& connection);
  void GoOnLater();
  void GoOn();

  void Reply(const ConnectionPtr& connection, const RequestOutcome& outcome);
  void Flush(const ConnectionPtr& connection);
  void Release(std::uint64_t stored);
  void ReleaseLate();
  void AwaitLate();
  void ReleaseOf(const ConnectionPtr& connection, Clock::time_point now);
  void Enlist(const Connection& connection);
  void Unlist(const Connection& connection);

  void Drop(const ConnectionPtr& connection, ConnectionEnd end = ConnectionEnd::ByPeer);
  void DropBecause(const ConnectionPtr& connection, ConnectionEnd end, const QString& why);
  void Ended(ConnectionEnd end) const;
  void Log(const LogEvent& event);
  void Stop();

  asio::io_context& network;
  asio::posix::stream_descriptor readiness;  // the epoll set
  Descriptor listening;
  tcp::endpoint endpoint;
  asio::steady_timer pause;
  Options options;
  std::unordered_map<std::uint64_t, ConnectionPtr> connections;
  std::unordered_map<QString, Peer> peers;
  std::uint64_t lastId = 0;
  std::array<char, kMaxRequestFrameBytes + kBytesPerRead> buffer;  // of the read that is handled
  std::deque<std::uint64_t> queued;  // who has its next turn without a read
  bool stopped = false;

  // Of each connection that keeps replies back: its first one.
  std::set<std::pair<std::uint64_t, std::uint64_t>> heldByAfter;  // with the connection's id
  std::set<std::pair<Clock::time_point, std::uint64_t>> heldByTime;
  std::uint64_t released = 0;
  asio::steady_timer lateTimer;
  bool awaitsLate = false;
  Clock::time_point nextLateLine;

  Clock::time_point logWindow;
  int linesInWindow = 0;
};

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

void FrameListener::Impl::Listen() {
  const std::string where = options.address.toStdString();
  try {
    tcp::acceptor acceptor(network);
    endpoint = tcp::endpoint(asio::ip::make_address(where), options.port);
    acceptor.open(endpoint.protocol());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    if (endpoint.address().is_v6()) acceptor.set_option(asio::ip::v6_only(false));
    SetOptionsOfConnections(acceptor);
    acceptor.bind(endpoint);
    acceptor.listen();
    acceptor.native_non_blocking(true);
    endpoint = acceptor.local_endpoint();
    listening = Descriptor(acceptor.release());
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen for " + options.whose.toStdString() + " on " + where +
                             ":" + std::to_string(options.port) + ": " + error.code().message() +
                             ". " + options.advice.toStdString());
  }
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
  const ConnectionPtr connection = Find(id);
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

void FrameListener::Impl::WatchFor(Connection& connection, std::uint32_t events) {
  if (connection.watched == events) return;
  connection.watched = events;
  (void)Watch(connection.socket.Get(), EPOLL_CTL_MOD, connection.agent.id, events);
}

ConnectionPtr FrameListener::Impl::Find(std::uint64_t id) const {
  const auto found = connections.find(id);
  return found == connections.end() ? nullptr : found->second;
}

// --- New connections.

void FrameListener::Impl::AcceptSome() {
  for (int i = 0; i < kAcceptsPerTurn && !stopped; ++i) {
    Descriptor socket(accept4(listening.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket.IsOpen()) {
      Admit(std::move(socket));
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != ECONNABORTED && errno != EINTR) {
      return AcceptAgainLater();
    }
  }
}

// Out of descriptors, mostly: trying at once would spin.
void FrameListener::Impl::AcceptAgainLater() {
  Log(QStringLiteral("connections cannot be taken at the moment; trying again"));
  (void)Watch(listening.Get(), EPOLL_CTL_MOD, 0, 0);
  pause.expires_after(kAcceptPause);
  pause.async_wait([self = shared_from_this()](const error_code&) {
    if (!self->stopped) (void)self->Watch(self->listening.Get(), EPOLL_CTL_MOD, 0, EPOLLIN);
  });
}

void FrameListener::Impl::Admit(Descriptor socket) {
  const auto connection = std::make_shared<Connection>();
  connection->socket = std::move(socket);
  QString sharedBy;
  if (!Identify(*connection, &sharedBy)) {
    return Ended(connection->agent.host.isEmpty() ? ConnectionEnd::ByPeer
                                                  : ConnectionEnd::UnknownUser);
  }
  MakeRoomFor(sharedBy);
  if (stopped) return;
  const bool hasRoom = connections.size() < options.mostConnections;
  if (!hasRoom || !Watch(connection->socket.Get(), EPOLL_CTL_ADD, lastId + 1, EPOLLIN)) {
    Ended(ConnectionEnd::TooMany);
    return Log(QStringLiteral("too many connections; closed one from %1").arg(sharedBy));
  }
  connection->agent.id = ++lastId;
  connection->peer = &peers[sharedBy];
  connection->peer->name = sharedBy;
  if (!connection->agent.peerUid) connection->agent.host = connection->peer->name;
  connection->peer->connections.push_back(*connection);
  connections.emplace(lastId, connection);
  if (options.opened) options.opened(connection->agent);
}

bool FrameListener::Impl::Identify(Connection& connection, QString* sharedBy) {
  tcp::endpoint from;
  auto size = static_cast<socklen_t>(from.capacity());
  if (getpeername(connection.socket.Get(), from.data(), &size) != 0) return false;
  from.resize(size);
  connection.agent.host = AddressText(from.address());
  *sharedBy = connection.agent.host;
  if (!IsFromThisMachine(connection.socket.Get())) return true;
  connection.agent.peerUid = options.userBehind(connection.socket.Get());
  if (!connection.agent.peerUid) {
    Log(QStringLiteral("a connection of an unknown user of this machine, closed"));
    return false;
  }
  connection.agent.host = QStringLiteral("local");
  *sharedBy = QStringLiteral("uid %1").arg(*connection.agent.peerUid);
  return true;
}

// The newest always gets in: whoever holds connections open must not keep the agent of the same
// user out.
void FrameListener::Impl::MakeRoomFor(const QString& sharedBy) {
  const auto peer = peers.find(sharedBy);
  if (peer == peers.end() || peer->second.connections.size() < options.mostOfOnePeer) return;
  DropBecause(Find(peer->second.connections.front().agent.id), ConnectionEnd::TooManyOfPeer,
              QStringLiteral("too many connections of one peer"));
}

// --- Frames.

void FrameListener::Impl::Read(const ConnectionPtr& connection) {
  const auto before = static_cast<std::size_t>(connection->received.size());
  const ssize_t count =
      recv(connection->socket.Get(), buffer.data() + before, kBytesPerRead, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return Drop(connection);
  std::copy(connection->received.cbegin(), connection->received.cend(), buffer.begin());
  connection->received = QByteArray();
  HandleFrames(connection, QByteArrayView(buffer.data(), static_cast<qsizetype>(before) + count));
}

void FrameListener::Impl::HandleFrames(const ConnectionPtr& connection, QByteArrayView bytes) {
  FrameStatus status = FrameStatus::Complete;
  for (int i = 0; i < kFramesPerTurn && !connection->isWaiting; ++i) {
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

bool FrameListener::Impl::HandleFrame(const ConnectionPtr& connection, const RequestFrame& frame) {
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

void FrameListener::Impl::Queue(Connection& connection) {
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
  const std::size_t before = queued.size();
  for (std::size_t i = 0; i < std::min(before, kQueuedPerTurn) && !stopped; ++i) {
    const std::uint64_t id = queued[i];
    const ConnectionPtr connection = Find(id);
    if (!connection) continue;
    connection->isQueued = false;
    const QByteArray bytes = std::exchange(connection->received, QByteArray());
    HandleFrames(connection, bytes);
  }
  queued.erase(queued.begin(),
               queued.begin() + static_cast<std::ptrdiff_t>(std::min(before, kQueuedPerTurn)));
  if (!queued.empty()) GoOnLater();
}

// --- Replies.

void FrameListener::Impl::Reply(const ConnectionPtr& connection, const RequestOutcome& outcome) {
  const auto size = static_cast<std::size_t>(outcome.reply.size());
  if (connection->Unread() + size > kMaxUnsentReplyBytes) Flush(connection);
  if (connection->Unread() + size > kMaxUnsentReplyBytes) {
    return DropBecause(connection, ConnectionEnd::Unread,
                       QStringLiteral("it does not read its replies"));
  }
  if (connection->held.empty() && outcome.after <= released) {
    connection->unsent.append(outcome.reply);
    if (connection->unsent.size() >= kBytesToGather) Flush(connection);
    return;
  }
  const Clock::time_point latest = Clock::now() + kLongestReplyDelay;
  connection->held.push_back({outcome.reply, outcome.after, latest});
  connection->heldBytes += size;
  if (connection->held.size() == 1) Enlist(*connection);
}

void FrameListener::Impl::Flush(const ConnectionPtr& connection) {
  QByteArray& unsent = connection->unsent;
  if (!connection->socket.IsOpen() || unsent.isEmpty()) return;
  const ssize_t count = send(connection->socket.Get(), unsent.constData(),
                             static_cast<std::size_t>(unsent.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count < 0 && errno != EAGAIN && errno != EINTR) return Drop(connection);
  if (count == unsent.size()) {
    unsent = QByteArray();
  } else if (count > 0) {
    unsent.remove(0, count);
  }
  const std::uint32_t others = connection->watched & ~EPOLLOUT;
  WatchFor(*connection, unsent.isEmpty() ? others : others | EPOLLOUT);
}

void FrameListener::Impl::Release(std::uint64_t stored) {
  released = std::max(released, stored);
  const Clock::time_point now = Clock::now();
  while (!heldByAfter.empty() && heldByAfter.begin()->first <= released) {
    ReleaseOf(Find(heldByAfter.begin()->second), now);
  }
}

void FrameListener::Impl::ReleaseLate() {
  const Clock::time_point now = Clock::now();
  const bool isLate = !heldByTime.empty() && heldByTime.begin()->first <= now;
  while (!heldByTime.empty() && heldByTime.begin()->first <= now) {
    ReleaseOf(Find(heldByTime.begin()->second), now);
  }
  if (!isLate || now < nextLateLine) return;
  nextLateLine = now + kTimeBetweenLateLines;
  Log({"replies-early", LogPriority::Warning,
       QStringLiteral("the store is slow: replies go out before their changes are stored")});
}

void FrameListener::Impl::AwaitLate() {
  if (awaitsLate || heldByTime.empty()) return;
  awaitsLate = true;
  lateTimer.expires_at(heldByTime.begin()->first);
  lateTimer.async_wait([self = shared_from_this()](const error_code&) {
    self->awaitsLate = false;
    if (self->stopped) return;
    self->ReleaseLate();
    self->AwaitLate();
  });
}

// The first reply that is kept back, at least, must be free to go.
void FrameListener::Impl::ReleaseOf(const ConnectionPtr& connection, Clock::time_point now) {
  Unlist(*connection);
  std::vector<HeldReply>& held = connection->held;
  auto next = held.begin();
  for (; next != held.end() && (next->after <= released || next->latest <= now); ++next) {
    connection->heldBytes -= static_cast<std::size_t>(next->reply.size());
    connection->unsent.append(next->reply);
  }
  held.erase(held.begin(), next);
  if (held.empty()) held.shrink_to_fit();
  Enlist(*connection);
  Flush(connection);
}

void FrameListener::Impl::Enlist(const Connection& connection) {
  if (connection.held.empty()) return;
  heldByAfter.emplace(connection.held.front().after, connection.agent.id);
  heldByTime.emplace(connection.held.front().latest, connection.agent.id);
  AwaitLate();
}

void FrameListener::Impl::Unlist(const Connection& connection) {
  if (connection.held.empty()) return;
  heldByAfter.erase({connection.held.front().after, connection.agent.id});
  heldByTime.erase({connection.held.front().latest, connection.agent.id});
}

// --- Ends.

void FrameListener::Impl::Drop(const ConnectionPtr& connection, ConnectionEnd end) {
  if (!connection->socket.IsOpen()) return;
  Unlist(*connection);
  connection->socket.Close();
  Peer& peer = *connection->peer;
  peer.connections.erase(peer.connections.iterator_to(*connection));
  if (peer.connections.empty()) peers.erase(peers.find(QString(peer.name)));
  connections.erase(connection->agent.id);
  if (options.closed) options.closed(connection->agent.id);
  Ended(end);
}

void FrameListener::Impl::DropBecause(const ConnectionPtr& connection, ConnectionEnd end,
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
  const ConnectionPtr kept = impl_->Find(connection);
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
