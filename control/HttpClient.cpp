#include "control/HttpClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
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

using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds kBetweenQuestions{100};

enum class Moved { Yes, TooLate, GivenUp };

Moved WaitFor(int fd, short events, const HttpRequest& request, Milliseconds patience,
              short* happened = nullptr) {
  const auto deadline = Clock::now() + patience;
  while (true) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return Moved::TooLate;
    if (request.isGivenUp && request.isGivenUp()) return Moved::GivenUp;
    pollfd waiting{fd, events, 0};
    const auto most = request.isGivenUp ? std::min(left, kBetweenQuestions) : left;
    const int ready = poll(&waiting, 1, static_cast<int>(most.count()));
    if (happened) *happened = waiting.revents;
    if (ready > 0 || (ready < 0 && errno != EINTR)) return Moved::Yes;
  }
}

void Tell(const HttpProgress& progress, std::int64_t done, std::int64_t total) {
  if (progress) progress(done, total);
}

HttpReply Failed(HttpOutcome outcome, const QString& trouble) {
  return {outcome, trouble, 0, {}};
}

// A listening Unix socket whose queue is full answers EAGAIN, and poll(2) says nothing of it.
HttpReply Connect(const Socket& connection, const QString& path, Milliseconds patience) {
  const auto deadline = Clock::now() + patience;
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

// A Server may answer before it has read everything: what goes wrong is left for the reading to
// find.
void Send(int fd, const QByteArray& bytes, const HttpRequest& request, Milliseconds patience) {
  qsizetype sent = 0;
  while (sent < bytes.size()) {
    short events = 0;
    if (WaitFor(fd, POLLOUT | POLLIN, request, patience, &events) != Moved::Yes) return;
    if ((events & POLLIN) != 0) return;
    const ssize_t count = send(fd, bytes.constData() + sent,
                               static_cast<std::size_t>(bytes.size() - sent), MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN && errno != EINTR) return;
    sent += count > 0 ? count : 0;
    Tell(request.sending, sent, bytes.size());
  }
}

using Parser = http::response_parser<http::string_body>;

void TellReceived(const HttpRequest& request, const Parser& parser) {
  if (!request.receiving || !parser.is_header_done()) return;
  const auto total = static_cast<std::int64_t>(parser.content_length().value_or(0));
  request.receiving(
      total - static_cast<std::int64_t>(parser.content_length_remaining().value_or(0)), total);
}

// False with the end of the connection, or an error of its.
bool ReceiveSome(int fd, std::string* unread) {
  char buffer[65536];
  const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
  if (count > 0) unread->append(buffer, static_cast<std::size_t>(count));
  return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

HttpReply Receive(int fd, const HttpRequest& request, Milliseconds patience) {
  Parser parser;
  parser.header_limit(static_cast<std::uint32_t>(kMaxControlHeaderBytes));
  parser.body_limit(kMaxControlReplyBytes);
  parser.eager(true);
  std::string unread;
  boost::system::error_code error;
  while (!parser.is_done()) {
    const Moved moved = WaitFor(fd, POLLIN, request, patience);
    if (moved != Moved::Yes) {
      return Failed(HttpOutcome::NoAnswer, moved == Moved::GivenUp
                                               ? QStringLiteral("interrupted")
                                               : QStringLiteral("it did not answer in time"));
    }
    if (!ReceiveSome(fd, &unread)) {
      if (parser.got_some()) parser.put_eof(error);
      if (parser.is_done()) break;
      return Failed(HttpOutcome::NoAnswer,
                    QStringLiteral("it hung up before its answer was complete"));
    }
    const std::size_t used = parser.put(boost::asio::buffer(unread), error);
    unread.erase(0, used);
    if (error && error != http::error::need_more) {
      return Failed(HttpOutcome::BadAnswer, QStringLiteral("its answer makes no sense (%1)")
                                                .arg(QString::fromStdString(error.message())));
    }
    TellReceived(request, parser);
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
  const Milliseconds patience = request.patience.value_or(patience_);
  const Socket connection;
  if (connection.fd() < 0) {
    return Failed(HttpOutcome::Unreachable, ErrorText());
  }
  const HttpReply connected = Connect(connection, socketPath_, patience_);
  if (connected.outcome != HttpOutcome::Answered) {
    return connected;
  }
  Send(connection.fd(), Serialize(request), request, patience);
  return Receive(connection.fd(), request, patience);
}

}  // namespace vardell::control
