#include "server/KillServer.h"

#include <QByteArray>
#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <charconv>
#include <chrono>
#include <list>
#include <stdexcept>
#include <string>

#include "Common Sources/Caps.h"
#include "link/Frame.h"
#include "link/MessageEncoding.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr std::chrono::seconds kAcceptPause{1};

struct Connection {
  Connection(tcp::socket accepted, std::uint32_t user) : socket(std::move(accepted)), uid(user) {}

  tcp::socket socket;
  const std::uint32_t uid;
  std::array<char, kRequestHeaderBytes> bytes{};
  RequestHeader header;
  QByteArray payload;
};

bool TakeHeader(Connection* connection) {
  const QByteArrayView bytes(connection->bytes.data(), connection->bytes.size());
  return ParseRequestHeader(bytes, &connection->header) == FrameStatus::Complete &&
         connection->header.kind == static_cast<std::uint8_t>(RequestKind::KillProcess);
}

// The payload is one counted string and nothing else.
std::optional<QString> TextOf(const QByteArray& payload) {
  qsizetype next = 0;
  const std::optional<QString> text = CopyStringFromData(payload, 0, &next);
  return next == payload.size() ? text : std::nullopt;
}

std::optional<pid_t> PidFrom(const QString& text) {
  const QByteArray digits = text.toUtf8();
  pid_t pid = 0;
  const char* end = digits.constData() + digits.size();
  const auto read = std::from_chars(digits.constData(), end, pid);
  if (read.ec != std::errc() || read.ptr != end || pid <= 0) return std::nullopt;
  return pid;
}

void Close(Connection& connection) {
  error_code ignored;
  connection.socket.close(ignored);
}

}  // namespace

struct KillServer::Impl : std::enable_shared_from_this<Impl> {
  using ConnectionPtr = std::shared_ptr<Connection>;  // held by the list and by the pending handler

  Impl(asio::io_context& context, Options given)
      : network(context), acceptor(context), pause(context), options(std::move(given)) {}

  void Listen();
  void Accept();
  void AcceptAgainLater();
  void Admit(tcp::socket socket);
  void MakeRoomFor(std::uint32_t uid);
  void ReadHeader(const ConnectionPtr& connection);
  void ReadPayload(const ConnectionPtr& connection);
  void HandleRequest(const ConnectionPtr& connection);
  void Kill(const ConnectionPtr& connection, pid_t pid);
  void Drop(const ConnectionPtr& connection);
  void Log(const QString& line) const;
  void Stop();

  asio::io_context& network;
  tcp::acceptor acceptor;
  asio::steady_timer pause;
  Options options;
  std::list<ConnectionPtr> connections;  // oldest first
  bool stopped = false;
  asio::thread_pool worker{1};
};

void KillServer::Impl::Listen() {
  const tcp::endpoint address(asio::ip::address_v4::loopback(), options.port);
  try {
    acceptor.open(address.protocol());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    acceptor.bind(address);
    acceptor.listen();
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error("cannot listen for kill requests on 127.0.0.1:" +
                             std::to_string(options.port) + ": " + error.code().message() +
                             ". Stop the program that has this port (is another vardell-server "
                             "running?) and start again");
  }
}

void KillServer::Impl::Accept() {
  acceptor.async_accept([self = shared_from_this()](const error_code& error, tcp::socket socket) {
    if (self->stopped) return;
    if (error) return self->AcceptAgainLater();
    self->Admit(std::move(socket));
    self->Accept();
  });
}

// Out of descriptors, mostly: trying at once would spin.
void KillServer::Impl::AcceptAgainLater() {
  pause.expires_after(kAcceptPause);
  pause.async_wait([self = shared_from_this()](const error_code&) {
    if (!self->stopped) self->Accept();
  });
}

void KillServer::Impl::Admit(tcp::socket socket) {
  const std::optional<std::uint32_t> uid = options.userBehind(socket.native_handle());
  if (!uid) return Log(QStringLiteral("kill listener: connection of an unknown user, closed"));
  MakeRoomFor(*uid);
  if (connections.size() >= kMaxKillConnections)
    return Log(
        QStringLiteral("kill listener: too many connections, closed one of uid %1").arg(*uid));
  connections.push_back(std::make_shared<Connection>(std::move(socket), *uid));
  ReadHeader(connections.back());
}

// A user's newest connection always gets in: a program that holds connections open must not keep
// the same user's agent out.
void KillServer::Impl::MakeRoomFor(std::uint32_t uid) {
  const auto isTheirs = [uid](const ConnectionPtr& one) { return one->uid == uid; };
  if (std::count_if(connections.begin(), connections.end(), isTheirs) <
      static_cast<std::ptrdiff_t>(kMaxKillConnectionsOfUser)) {
    return;
  }
  Drop(*std::find_if(connections.begin(), connections.end(), isTheirs));
}

void KillServer::Impl::ReadHeader(const ConnectionPtr& connection) {
  asio::async_read(connection->socket, asio::buffer(connection->bytes),
                   [self = shared_from_this(), connection](const error_code& error, std::size_t) {
                     if (self->stopped) return;
                     if (error || !TakeHeader(connection.get())) return self->Drop(connection);
                     self->ReadPayload(connection);
                   });
}

void KillServer::Impl::ReadPayload(const ConnectionPtr& connection) {
  connection->payload.resize(connection->header.frameBytes - kRequestHeaderBytes);
  asio::async_read(connection->socket,
                   asio::buffer(connection->payload.data(), connection->payload.size()),
                   [self = shared_from_this(), connection](const error_code& error, std::size_t) {
                     if (self->stopped) return;
                     if (error) return self->Drop(connection);
                     self->HandleRequest(connection);
                   });
}

void KillServer::Impl::HandleRequest(const ConnectionPtr& connection) {
  const std::optional<QString> text = TextOf(connection->payload);
  if (!text) return Drop(connection);
  if (const std::optional<pid_t> pid = PidFrom(*text)) return Kill(connection, *pid);
  Log(QStringLiteral("kill request of uid %1 for what is no pid: refused").arg(connection->uid));
  ReadHeader(connection);
}

void KillServer::Impl::Kill(const ConnectionPtr& connection, pid_t pid) {
  asio::post(worker, [self = shared_from_this(), connection, pid] {
    const KillResult result = self->options.kill(pid, connection->uid);
    asio::post(self->network, [self, connection, pid, result] {
      if (self->stopped) return;
      self->Log(QStringLiteral("kill request of uid %1 for pid %2: %3")
                    .arg(connection->uid)
                    .arg(pid)
                    .arg(ToString(result)));
      if (connection->socket.is_open()) self->ReadHeader(connection);
    });
  });
}

void KillServer::Impl::Drop(const ConnectionPtr& connection) {
  const ConnectionPtr kept = connection;  // the argument may be the list's own element
  Close(*kept);
  connections.remove(kept);
}

void KillServer::Impl::Log(const QString& line) const {
  if (options.log) options.log(line);
}

void KillServer::Impl::Stop() {
  stopped = true;
  error_code ignored;
  acceptor.close(ignored);
  pause.cancel();
  for (const ConnectionPtr& connection : connections) Close(*connection);
  connections.clear();
  worker.stop();
  worker.join();
}

KillServer::KillServer(asio::io_context& network, Options options)
    : impl_(std::make_shared<Impl>(network, std::move(options))) {
  if (!impl_->options.kill) {
    impl_->options.kill = [](pid_t pid, uid_t requester) {
      return KillOnRequest(pid, requester, KillRules{});
    };
  }
  impl_->Listen();
  impl_->Accept();
}

KillServer::~KillServer() {
  impl_->Stop();
}

std::uint16_t KillServer::Port() const {
  return impl_->acceptor.local_endpoint().port();
}

}  // namespace vardell::server
