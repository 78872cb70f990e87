#include "control/HttpClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/beast/http.hpp>
#include <cerrno>
#include <cstring>

#include "Common Sources/Caps.h"

namespace vardell::control {
namespace {

namespace http = boost::beast::http;
using Clock = std::chrono::steady_clock;

class Socket {
 public:
  Socket() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
  ~Socket() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

QString ErrorText() {
  return QString::fromLocal8Bit(strerror(errno));
}

// False when the deadline came first.
bool WaitFor(int fd, short events, Clock::time_point deadline) {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      return false;
    }
    pollfd waiting{fd, events, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(left.count()));
    if (ready > 0 || (ready < 0 && errno != EINTR)) {
      return true;
    }
  }
}

HttpReply Failed(HttpOutcome outcome, const QString& trouble) {
  return {outcome, trouble, 0, {}};
}

// A listening Unix socket whose queue is full answers EAGAIN, and poll(2) says nothing of it.
HttpReply Connect(const Socket& connection, const QString& path, Clock::time_point deadline) {
  const QByteArray name = path.toLocal8Bit();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.isEmpty() || static_cast<std::size_t>(name.size()) >= sizeof(address.sun_path)) {
    return Failed(HttpOutcome::Unreachable, QStringLiteral("the path is too long for a socket"));
  }
  std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
  while (connect(connection.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
         0) {
    if ((errno != EAGAIN && errno != EINTR) || Clock::now() >= deadline) {
      return Failed(HttpOutcome::Unreachable, ErrorText());
    }
    (void)poll(nullptr, 0, 20);
  }
  return {};
}

// An error is left for the reading to find: a Server may answer before it has read everything.
void Send(int fd, const QByteArray& bytes, Clock::time_point deadline) {
  qsizetype sent = 0;
  while (sent < bytes.size() && WaitFor(fd, POLLOUT, deadline)) {
    const ssize_t count = send(fd, bytes.constData() + sent,
                               static_cast<std::size_t>(bytes.size() - sent), MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN && errno != EINTR) {
      return;
    }
    sent += count > 0 ? count : 0;
  }
}

HttpReply Receive(int fd, Clock::time_point deadline) {
  http::response_parser<http::string_body> parser;
  parser.header_limit(static_cast<std::uint32_t>(kMaxControlHeaderBytes));
  parser.body_limit(kMaxControlReplyBytes);
  parser.eager(true);
  std::string unread;
  boost::system::error_code error;
  while (!parser.is_done()) {
    if (!WaitFor(fd, POLLIN, deadline)) {
      return Failed(HttpOutcome::NoAnswer, QStringLiteral("it did not answer in time"));
    }
    char buffer[16384];
    const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
      continue;
    }
    if (count <= 0) {
      if (parser.got_some()) {
        parser.put_eof(error);
      }
      if (!parser.is_done()) {
        return Failed(HttpOutcome::NoAnswer,
                      QStringLiteral("it hung up before its answer was complete"));
      }
      break;
    }
    unread.append(buffer, static_cast<std::size_t>(count));
    const std::size_t used = parser.put(boost::asio::buffer(unread), error);
    unread.erase(0, used);
    if (error && error != http::error::need_more) {
      return Failed(HttpOutcome::BadAnswer, QStringLiteral("its answer makes no sense (%1)")
                                                .arg(QString::fromStdString(error.message())));
    }
  }
  const auto& message = parser.get();
  return {HttpOutcome::Answered,
          {},
          static_cast<int>(message.result_int()),
          QByteArray::fromStdString(message.body())};
}

QByteArray Serialize(const HttpRequest& request) {
  QByteArray bytes = request.method + ' ' + request.target +
                     " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n";
  for (const auto& [name, value] : request.headers) {
    bytes += name + ": " + value + "\r\n";
  }
  if (!request.body.isEmpty()) {
    bytes += "Content-Type: application/json\r\nContent-Length: " +
             QByteArray::number(request.body.size()) + "\r\n";
  }
  return bytes + "\r\n" + request.body;
}

}  // namespace

HttpClient::HttpClient(QString socketPath, std::chrono::milliseconds patience)
    : socketPath_(std::move(socketPath)), patience_(patience) {}

HttpReply HttpClient::Ask(const HttpRequest& request) const {
  const auto deadline = Clock::now() + patience_;
  const Socket connection;
  if (connection.fd() < 0) {
    return Failed(HttpOutcome::Unreachable, ErrorText());
  }
  const HttpReply connected = Connect(connection, socketPath_, deadline);
  if (connected.outcome != HttpOutcome::Answered) {
    return connected;
  }
  Send(connection.fd(), Serialize(request), deadline);
  return Receive(connection.fd(), deadline);
}

}  // namespace vardell::control
