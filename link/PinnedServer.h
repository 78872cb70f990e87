// The Server that an administrator has named: "host:port".
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <optional>
#include <vector>

namespace vardell {

struct HostAndPort {
  QString host;
  std::uint16_t port = 0;
};

// "name:port", "192.0.2.1:port" or "[2001:db8::1]:port", blanks around it allowed; absent for
// anything else.
std::optional<HostAndPort> ParseHostAndPort(const QString& text);

// Socket addresses, IPv4 ones first. Addresses and "localhost" are answered at once; another name
// blocks for as long as the system's resolver does. 0, or getaddrinfo's code (`out` untouched).
[[nodiscard]] int LookUpHost(const HostAndPort& server, std::vector<QByteArray>* out);

}  // namespace vardell
