#include "link/PinnedServer.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <utility>

namespace vardell {

namespace {

std::optional<std::uint16_t> ParsePort(const QString& text) {
  const bool digits = std::all_of(text.begin(), text.end(), [](QChar character) {
    return character >= QLatin1Char('0') && character <= QLatin1Char('9');
  });
  bool fits = false;
  const std::uint16_t port = text.toUShort(&fits);
  if (!digits || !fits || port == 0) return std::nullopt;
  return port;
}

bool IsHost(const QString& text) {
  return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar character) {
    return character > QLatin1Char(' ') && character < QChar(0x7f) &&
           character != QLatin1Char('[') && character != QLatin1Char(']');
  });
}

int GetAddresses(const QByteArray& host, std::uint16_t port, int flags,
                 std::vector<QByteArray>* out) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  addrinfo* first = nullptr;
  const QByteArray service = QByteArray::number(port);
  if (const int error = getaddrinfo(host.constData(), service.constData(), &hints, &first))
    return error;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(first, freeaddrinfo);
  std::vector<QByteArray> addresses;
  for (const addrinfo* info = first; info != nullptr; info = info->ai_next)
    addresses.emplace_back(reinterpret_cast<const char*>(info->ai_addr),
                           static_cast<qsizetype>(info->ai_addrlen));
  std::stable_partition(addresses.begin(), addresses.end(), [](const QByteArray& address) {
    return address.size() == qsizetype(sizeof(sockaddr_in));
  });
  *out = std::move(addresses);
  return 0;
}

}  // namespace

std::optional<HostAndPort> ParseHostAndPort(const QString& text) {
  const QString trimmed = text.trimmed();
  const qsizetype colon = trimmed.lastIndexOf(QLatin1Char(':'));
  if (colon < 0) return std::nullopt;
  QString host = trimmed.left(colon);
  const bool bracketed = host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']'));
  if (bracketed) host = host.mid(1, host.size() - 2);
  // Without brackets it cannot be told where an IPv6 address ends.
  if (!IsHost(host) || (!bracketed && host.contains(QLatin1Char(':')))) return std::nullopt;
  const std::optional<std::uint16_t> port = ParsePort(trimmed.mid(colon + 1));
  if (!port) return std::nullopt;
  return HostAndPort{std::move(host), *port};
}

int LookUpHost(const HostAndPort& server, std::vector<QByteArray>* out) {
  const bool isHere = server.host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0;
  const QByteArray host = isHere ? QByteArray("127.0.0.1") : server.host.toLatin1();
  const int error = GetAddresses(host, server.port, AI_NUMERICHOST, out);
  return error == EAI_NONAME ? GetAddresses(host, server.port, 0, out) : error;
}

}  // namespace vardell
