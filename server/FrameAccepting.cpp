// How a FrameListener takes connections.
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/ip/v6_only.hpp>
#include <cerrno>
#include <stdexcept>
#include <string>

#include "server/FrameListenerImpl.h"
#include "server/PeerIdentity.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr std::chrono::seconds kAcceptPause{1};
constexpr int kAcceptsPerTurn = 16;

// A peer that has gone without a word is found out after the first and `kProbes` times the second.
constexpr int kSilenceBeforeProbes = 300;  // seconds
constexpr int kTimeBetweenProbes = 30;     // seconds
constexpr int kProbes = 10;
constexpr int kLongestUnacknowledged = 600'000;  // milliseconds

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
  Set<IPPROTO_TCP, TCP_USER_TIMEOUT>(acceptor, kLongestUnacknowledged);
}

}  // namespace

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
    listening = FrameSocket(acceptor.release());
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen for " + options.whose.toStdString() + " on " + where +
                             ":" + std::to_string(options.port) + ": " + error.code().message() +
                             ". " + options.advice.toStdString());
  }
}

void FrameListener::Impl::AcceptSome() {
  for (int i = 0; i < kAcceptsPerTurn && !stopped; ++i) {
    FrameSocket socket(accept4(listening.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
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

void FrameListener::Impl::Admit(FrameSocket socket) {
  const auto connection = std::make_shared<FrameConnection>();
  connection->socket = std::move(socket);
  QString sharedBy;
  if (!Identify(*connection, &sharedBy)) {
    return Ended(connection->agent.host.isEmpty() ? ConnectionEnd::ByPeer
                                                  : ConnectionEnd::UnknownUser);
  }
  const bool isUser = connection->agent.peerUid && options.mostOfOneUser != 0;
  MakeRoomFor(sharedBy, isUser ? options.mostOfOneUser : options.mostOfOnePeer);
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

bool FrameListener::Impl::Identify(FrameConnection& connection, QString* sharedBy) {
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
void FrameListener::Impl::MakeRoomFor(const QString& sharedBy, std::size_t most) {
  const auto peer = peers.find(sharedBy);
  if (peer == peers.end() || peer->second.connections.size() < most) return;
  DropBecause(Find(peer->second.connections.front().agent.id), ConnectionEnd::TooManyOfPeer,
              QStringLiteral("too many connections of one peer"));
}

}  // namespace vardell::server
