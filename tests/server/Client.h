// The other side of a connection to the Server under test, an agent's or an administrator's: sends
// what it is told, also what nobody would, and reads with a deadline.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QByteArray>
#include <QFile>
#include <QVariantMap>
#include <algorithm>
#include <cerrno>
#include <optional>

#include "Common Sources/PropertyList.h"
#include "link/Frame.h"
#include "link/MessageEncoding.h"
#include "tests/support/FakeServiceDiscovery.h"

namespace vardell::test {

inline QByteArray FrameOf(RequestKind kind, const QByteArray& payload) {
  std::uint32_t reserved = 0;
  return BuildRequestFrame(kind, payload, reserved);
}

inline QByteArray FrameOf(RequestKind kind, const QStringList& strings) {
  QByteArray payload;
  for (const QString& string : strings) AppendStringToData(payload, string);
  return FrameOf(kind, payload);
}

class Client {
 public:
  explicit Client(std::uint16_t port, const char* address = "127.0.0.1") {
    Connect(SocketAddressV4(address, port));
  }
  explicit Client(const QString& path) {
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    std::copy(name.begin(), name.end(), un.sun_path);
    Connect(QByteArray(reinterpret_cast<const char*>(&un), sizeof un));
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool IsConnected() const { return connected_; }

  void Send(const QByteArray& bytes) const {
    (void)!send(fd_, bytes.constData(), static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL);
  }
  // As much as the Server takes at the moment; false when the connection has gone.
  bool SendSome(const QByteArray& bytes) const {
    return send(fd_, bytes.constData(), static_cast<std::size_t>(bytes.size()),
                MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 ||
           errno == EAGAIN;
  }

  // What comes until `until` has come or the Server closes.
  QByteArray ReadUntil(const QByteArray& until) const {
    QByteArray text;
    while (!text.contains(until) && ReadSome(&text, 4096)) {
    }
    return text;
  }
  std::optional<QVariantMap> ReadDictionary() const {
    const auto read = [this](qsizetype size) {
      QByteArray bytes;
      while (bytes.size() < size && ReadSome(&bytes, size - bytes.size())) {
      }
      return bytes;
    };
    const auto dictionary =
        ReadPropertyListXml(read(ReplyLength(read(kReplyHeaderBytes)).value_or(0)));
    return dictionary ? std::optional(dictionary->toMap()) : std::nullopt;
  }

  bool IsClosedByServer() const {
    char byte = 0;
    return IsReadable(kPatienceMs) && recv(fd_, &byte, 1, 0) <= 0;
  }
  bool HasSomethingToRead() const { return IsReadable(0); }

 private:
  static constexpr int kPatienceMs = 20000;

  void Connect(const QByteArray& address) {
    const auto* any = reinterpret_cast<const sockaddr*>(address.constData());
    fd_ = socket(any->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    connected_ = connect(fd_, any, static_cast<socklen_t>(address.size())) == 0;
  }
  bool IsReadable(int patience) const {
    pollfd wait{fd_, POLLIN, 0};
    return poll(&wait, 1, patience) == 1;
  }
  bool ReadSome(QByteArray* bytes, qsizetype most) const {
    QByteArray chunk(most, '\0');
    if (!IsReadable(kPatienceMs)) return false;
    const ssize_t count = recv(fd_, chunk.data(), static_cast<std::size_t>(most), 0);
    if (count > 0) bytes->append(chunk.constData(), count);
    return count > 0;
  }

  int fd_ = -1;
  bool connected_ = false;
};

}  // namespace vardell::test
