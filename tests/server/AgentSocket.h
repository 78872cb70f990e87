// An agent's side of a connection to the Server under test: sends what it is told, also what no
// agent would, and reads replies with a deadline.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QVariantMap>
#include <QtEndian>
#include <optional>

#include "Common Sources/PropertyList.h"
#include "link/Frame.h"
#include "link/MessageEncoding.h"

namespace vardell::server::test {

inline QByteArray FrameOf(RequestKind kind, const QByteArray& payload) {
  std::uint32_t reserved = 0;
  return BuildRequestFrame(kind, payload, reserved);
}

inline QByteArray NamesFrame(RequestKind kind, const QString& user, const QString& identifier) {
  QByteArray payload;
  AppendStringToData(payload, user);
  AppendStringToData(payload, identifier);
  return FrameOf(kind, payload);
}

inline QByteArray ReportFrame(const QString& user, const QString& identifier, std::int32_t credit) {
  LimitsRecord record;
  record.credit = credit;
  return FrameOf(RequestKind::CreditReport, AppendLimitsRecordToData(user, identifier, record));
}

class AgentSocket {
 public:
  explicit AgentSocket(std::uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&in), sizeof in) == 0;
  }
  ~AgentSocket() { close(fd_); }
  AgentSocket(const AgentSocket&) = delete;
  AgentSocket& operator=(const AgentSocket&) = delete;

  bool IsConnected() const { return connected_; }

  void Send(const QByteArray& bytes) const {
    (void)!send(fd_, bytes.constData(), static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL);
  }
  // As much as the Server takes at the moment; false when the connection has gone.
  bool SendSome(const QByteArray& bytes) const {
    const ssize_t sent = send(fd_, bytes.constData(), static_cast<std::size_t>(bytes.size()),
                              MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent >= 0 || errno == EAGAIN;
  }

  std::optional<QVariantMap> ReadDictionary() const {
    const QByteArray head = ReadBytes(kReplyHeaderBytes);
    const auto length = ReplyLength(head);
    if (!length) return std::nullopt;
    const auto body = ReadPropertyListXml(ReadBytes(*length));
    if (!body) return std::nullopt;
    return body->toMap();
  }

  bool IsClosedByServer() const {
    char byte = 0;
    return IsReadable(kPatienceMs) && recv(fd_, &byte, 1, 0) <= 0;
  }
  bool HasSomethingToRead() const { return IsReadable(0); }

 private:
  static constexpr int kPatienceMs = 20000;

  bool IsReadable(int patience) const {
    pollfd wait{fd_, POLLIN, 0};
    return poll(&wait, 1, patience) == 1;
  }
  QByteArray ReadBytes(qsizetype size) const {
    QByteArray bytes;
    while (bytes.size() < size && IsReadable(kPatienceMs)) {
      QByteArray chunk(size - bytes.size(), '\0');
      const ssize_t count = recv(fd_, chunk.data(), static_cast<std::size_t>(chunk.size()), 0);
      if (count <= 0) break;
      bytes.append(chunk.constData(), count);
    }
    return bytes;
  }

  const int fd_;
  bool connected_ = false;
};

}  // namespace vardell::server::test
