#include "server/FrameListener.h"

#include <QByteArray>
#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <map>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include "Common Sources/Caps.h"
#include "server/Household.h"
#include "server/PeerIdentity.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr std::chrono::seconds kAcceptPause{1};
// A client can make lines appear; beyond this many in a second they are only counted.
constexpr int kMaxLinesPerSecond = 20;

struct Connection {
  explicit Connection(tcp::socket accepted) : socket(std::move(accepted)) {}

  tcp::socket socket;
  AgentConnection agent;
  QString sharedBy;  // whose connections count together
  std::array<char, 4096> chunk{};
  QByteArray received;  // at most a frame and a chunk
  QByteArray sending;
  QByteArray unsent;  // behind `sending`
  bool isWaiting = false;
};
using ConnectionPtr = std::shared_ptr<Connection>;  // held by the map and by the pending handlers

QString AddressText(const asio::ip::address& address) {
  if (address.is_v6() && address.to_v6().is_v4_mapped()) {
    const auto inner = asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
    return QString::fromStdString(inner.to_string());
  }
  return QString::fromStdString(address.to_string());
}

void Close(Connection& connection) {
  error_code ignored;
  connection.socket.close(ignored);
}

}  // namespace

struct FrameListener::Impl : std::enable_shared_from_this<Impl> {
  Impl(asio::io_context& context, Options given)
      : acceptor(context), pause(context), options(std::move(given)) {}

  void Listen();
  void Accept();
  void AcceptAgainLater();
  void Admit(tcp::socket socket);
  bool Identify(Connection& connection);
  void MakeRoomFor(const QString& sharedBy);
  void Read(const ConnectionPtr& connection);
  void HandleReceived(const ConnectionPtr& connection);
  bool HandleFrame(const ConnectionPtr& connection, const RequestFrame& frame);
  void Send(const ConnectionPtr& connection, const QByteArray& reply);
  void WriteOn(const ConnectionPtr& connection);
  void Drop(const ConnectionPtr& connection);
  void DropBecause(const ConnectionPtr& connection, const QString& why);
  void Log(const QString& line);
  void Stop();

  tcp::acceptor acceptor;
  asio::steady_timer pause;
  Options options;
  std::map<std::uint64_t, ConnectionPtr> connections;  // by id: oldest first
  std::unordered_map<QString, std::size_t> connectionsOf;
  std::uint64_t lastId = 0;
  bool stopped = false;
  std::chrono::steady_clock::time_point logWindow;
  int linesInWindow = 0;
};

void FrameListener::Impl::Listen() {
  const std::string where = options.address.toStdString();
  try {
    const tcp::endpoint endpoint(asio::ip::make_address(where), options.port);
    acceptor.open(endpoint.protocol());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    if (endpoint.address().is_v6()) acceptor.set_option(asio::ip::v6_only(false));
    acceptor.bind(endpoint);
    acceptor.listen();
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen for " + options.whose.toStdString() + " on " + where +
                             ":" + std::to_string(options.port) + ": " + error.code().message() +
                             ". " + options.advice.toStdString());
  }
}

void FrameListener::Impl::Accept() {
  acceptor.async_accept([self = shared_from_this()](const error_code& error, tcp::socket socket) {
    if (self->stopped) return;
    if (error) return self->AcceptAgainLater();
    self->Admit(std::move(socket));
    self->Accept();
  });
}

// Out of descriptors, mostly: trying at once would spin.
void FrameListener::Impl::AcceptAgainLater() {
  Log(QStringLiteral("connections cannot be taken at the moment; trying again"));
  pause.expires_after(kAcceptPause);
  pause.async_wait([self = shared_from_this()](const error_code&) {
    if (!self->stopped) self->Accept();
  });
}

void FrameListener::Impl::Admit(tcp::socket socket) {
  const auto connection = std::make_shared<Connection>(std::move(socket));
  if (!Identify(*connection)) return;
  MakeRoomFor(connection->sharedBy);
  if (connections.size() >= options.mostConnections) {
    return Log(
        QStringLiteral("too many connections; closed one from %1").arg(connection->sharedBy));
  }
  error_code ignored;
  connection->socket.set_option(tcp::no_delay(true), ignored);
  connection->socket.set_option(asio::socket_base::keep_alive(true), ignored);
  connection->agent.id = ++lastId;
  connections.emplace(lastId, connection);
  ++connectionsOf[connection->sharedBy];
  if (options.opened) options.opened(connection->agent);
  Read(connection);
}

bool FrameListener::Impl::Identify(Connection& connection) {
  error_code error;
  const tcp::endpoint peer = connection.socket.remote_endpoint(error);
  if (error) return false;
  connection.agent.host = AddressText(peer.address());
  connection.sharedBy = connection.agent.host;
  if (!IsFromThisMachine(connection.socket.native_handle())) return true;
  connection.agent.peerUid = options.userBehind(connection.socket.native_handle());
  if (!connection.agent.peerUid) {
    Log(QStringLiteral("a connection of an unknown user of this machine, closed"));
    return false;
  }
  connection.agent.host = QStringLiteral("local");
  connection.sharedBy = QStringLiteral("uid %1").arg(*connection.agent.peerUid);
  return true;
}

// The newest always gets in: whoever holds connections open must not keep the agent of the same
// user out.
void FrameListener::Impl::MakeRoomFor(const QString& sharedBy) {
  const auto count = connectionsOf.find(sharedBy);
  if (count == connectionsOf.end() || count->second < options.mostOfOnePeer) return;
  const auto oldest = std::find_if(connections.begin(), connections.end(), [&](const auto& one) {
    return one.second->sharedBy == sharedBy;
  });
  DropBecause(oldest->second, QStringLiteral("too many connections of one peer"));
}

void FrameListener::Impl::Read(const ConnectionPtr& connection) {
  connection->socket.async_read_some(
      asio::buffer(connection->chunk),
      [self = shared_from_this(), connection](const error_code& error, std::size_t size) {
        if (self->stopped || !connection->socket.is_open()) return;
        if (error) return self->Drop(connection);
        connection->received.append(connection->chunk.data(), static_cast<qsizetype>(size));
        self->HandleReceived(connection);
      });
}

void FrameListener::Impl::HandleReceived(const ConnectionPtr& connection) {
  QByteArrayView rest = connection->received;
  FrameStatus status = FrameStatus::Complete;
  while (status == FrameStatus::Complete && !connection->isWaiting) {
    RequestFrame frame;
    status = TakeFrame(&rest, &frame);
    if (status == FrameStatus::Complete && !HandleFrame(connection, frame)) return;
  }
  if (status == FrameStatus::Malformed) {
    return DropBecause(connection, QStringLiteral("a malformed frame"));
  }
  connection->received.remove(0, connection->received.size() - rest.size());
  if (!connection->isWaiting) Read(connection);
}

bool FrameListener::Impl::HandleFrame(const ConnectionPtr& connection, const RequestFrame& frame) {
  const RequestOutcome outcome = options.handle(connection->agent, frame);
  if (outcome.problem) {
    DropBecause(connection, *outcome.problem);
    return false;
  }
  connection->isWaiting = outcome.isUnderWay;
  if (!outcome.reply.isEmpty()) Send(connection, outcome.reply);
  return connection->socket.is_open();
}

void FrameListener::Impl::Send(const ConnectionPtr& connection, const QByteArray& reply) {
  const auto waiting = connection->sending.size() + connection->unsent.size();
  if (static_cast<std::size_t>(waiting + reply.size()) > kMaxUnsentReplyBytes) {
    return DropBecause(connection, QStringLiteral("it does not read its replies"));
  }
  connection->unsent.append(reply);
  if (connection->sending.isEmpty()) WriteOn(connection);
}

void FrameListener::Impl::WriteOn(const ConnectionPtr& connection) {
  connection->sending = std::exchange(connection->unsent, QByteArray());
  if (connection->sending.isEmpty()) return;
  asio::async_write(connection->socket,
                    asio::buffer(connection->sending.constData(),
                                 static_cast<std::size_t>(connection->sending.size())),
                    [self = shared_from_this(), connection](const error_code& error, std::size_t) {
                      if (self->stopped || !connection->socket.is_open()) return;
                      if (error) return self->Drop(connection);
                      self->WriteOn(connection);
                    });
}

void FrameListener::Impl::Drop(const ConnectionPtr& connection) {
  const ConnectionPtr kept = connection;  // the argument may be the map's own element
  if (!kept->socket.is_open()) return;
  Close(*kept);
  connections.erase(kept->agent.id);
  const auto count = connectionsOf.find(kept->sharedBy);
  if (--count->second == 0) connectionsOf.erase(count);
  if (options.closed) options.closed(kept->agent.id);
}

void FrameListener::Impl::DropBecause(const ConnectionPtr& connection, const QString& why) {
  Log(QStringLiteral("connection from %1 closed: %2").arg(connection->sharedBy, why));
  Drop(connection);
}

void FrameListener::Impl::Log(const QString& line) {
  const auto now = std::chrono::steady_clock::now();
  if (now - logWindow >= std::chrono::seconds(1)) {
    const int dropped = linesInWindow - kMaxLinesPerSecond;
    if (dropped > 0 && options.log) {
      options.log(QStringLiteral("%1 more lines like these").arg(dropped));
    }
    logWindow = now;
    linesInWindow = 0;
  }
  if (++linesInWindow <= kMaxLinesPerSecond && options.log) options.log(line);
}

void FrameListener::Impl::Stop() {
  stopped = true;
  error_code ignored;
  acceptor.close(ignored);
  pause.cancel();
  for (const auto& [id, connection] : connections) Close(*connection);
  connections.clear();
}

FrameListener::FrameListener(asio::io_context& network, Options options)
    : impl_(std::make_shared<Impl>(network, std::move(options))) {
  impl_->Listen();
  impl_->Accept();
}

FrameListener::~FrameListener() {
  impl_->Stop();
}

void FrameListener::ReadOn(std::uint64_t connection) {
  const auto found = impl_->connections.find(connection);
  if (found == impl_->connections.end()) return;
  const ConnectionPtr kept = found->second;
  kept->isWaiting = false;
  impl_->HandleReceived(kept);
}

void FrameListener::Release(std::uint64_t) {}

std::uint16_t FrameListener::Port() const {
  return impl_->acceptor.local_endpoint().port();
}

QString FrameListener::Address() const {
  const asio::ip::address address = impl_->acceptor.local_endpoint().address();
  const QString text = QString::fromStdString(address.to_string());
  return (address.is_v6() ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2"))
      .arg(text)
      .arg(Port());
}

int FrameListener::Connections() const {
  return static_cast<int>(impl_->connections.size());
}

}  // namespace vardell::server
