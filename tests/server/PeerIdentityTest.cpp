#include "server/PeerIdentity.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <utility>

#include "tests/support/FakeServiceDiscovery.h"
#include "tests/support/OtherUsers.h"

namespace vardell::server {
namespace {

using namespace test;

QByteArray Address(const char* text, std::uint16_t port) {
  return std::strchr(text, ':') ? SocketAddressV6(text, port) : SocketAddressV4(text, port);
}

const sockaddr* AsSocketAddress(const QByteArray& address) {
  return reinterpret_cast<const sockaddr*>(address.constData());
}

// Closes what it holds.
class Socket {
 public:
  explicit Socket(int descriptor) : fd(descriptor) {}
  ~Socket() { Close(); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  void Close() { fd >= 0 ? close(std::exchange(fd, -1)) : 0; }
  int fd;
};

// Listens on any port of `address`; -1 where the machine does not have that family.
int Listen(const char* text, std::uint16_t* port) {
  const QByteArray address = Address(text, 0);
  const int fd = socket(AsSocketAddress(address)->sa_family, SOCK_STREAM, 0);
  const int no = 0;
  sockaddr_in6 bound{};
  socklen_t size = sizeof(bound);
  if (std::strchr(text, ':')) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof(no));
  if (fd < 0 || bind(fd, AsSocketAddress(address), static_cast<socklen_t>(address.size())) != 0 ||
      listen(fd, 5) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  *port = ntohs(bound.sin6_port);  // in both families at the same place
  return fd;
}

int Connect(const char* text, std::uint16_t port) {
  const QByteArray address = Address(text, port);
  const int fd = socket(AsSocketAddress(address)->sa_family, SOCK_STREAM, 0);
  EXPECT_EQ(connect(fd, AsSocketAddress(address), static_cast<socklen_t>(address.size())), 0)
      << text << ": " << strerror(errno);
  return fd;
}

using Lookup = PeerLookup (*)(int socket, std::uint32_t* uid);

const Lookup kWays[] = {AskSocketDiagnostics, ReadSocketTable};

// As root, a client of another user is told from root's own at the same port.
TEST(PeerIdentity, FindsTheUserBothWaysInEachFamily) {
  const uid_t user = geteuid() == 0 ? kAnna : geteuid();
  const struct {
    const char* what;
    const char* listensOn;
    const char* connectsTo;
  } kFamilies[] = {
      {"IPv4", "127.0.0.1", "127.0.0.1"},
      {"IPv6", "::1", "::1"},
      {"an IPv4 client of a listener for both", "::", "127.0.0.1"},
      {"an IPv4-mapped client of an IPv4 listener", "127.0.0.1", "::ffff:127.0.0.1"},
      {"an IPv4-mapped client of a listener for both", "::", "::ffff:127.0.0.1"},
  };
  for (const auto& row : kFamilies) {
    SCOPED_TRACE(row.what);
    std::uint16_t port = 0;
    const Socket listener(Listen(row.listensOn, &port));
    if (listener.fd < 0) {
      std::printf("%s: this machine has no such address, not tried\n", row.listensOn);
      continue;
    }
    const Socket roots(Connect(row.connectsTo, port));
    const Socket first(accept(listener.fd, nullptr, nullptr));
    int client = -1;
    const auto connect = [&] { client = Connect(row.connectsTo, port); };
    user == geteuid() ? connect() : AsUser(user, connect);
    const Socket users(client);
    const Socket second(accept(listener.fd, nullptr, nullptr));
    for (const auto& [socket, expected] : {std::pair(first.fd, geteuid()), {second.fd, user}}) {
      for (const Lookup way : kWays) {
        std::uint32_t uid = 1;
        EXPECT_EQ(way(socket, &uid), PeerLookup::Answered);
        EXPECT_EQ(uid, expected);
      }
      EXPECT_EQ(UserBehind(socket), expected);
      EXPECT_TRUE(IsFromThisMachine(socket));
    }
  }
}

// --- No answer.

void ExpectNoAnswer(int socket) {
  for (const Lookup way : kWays) {
    std::uint32_t uid = 77;
    EXPECT_EQ(way(socket, &uid), PeerLookup::NotIdentified);
    EXPECT_EQ(uid, 77u) << "the output is touched";
  }
  EXPECT_EQ(UserBehind(socket), std::nullopt);
}

class PeerIdentityOfNobody : public testing::Test {
 protected:
  std::uint16_t port = 0;
  const Socket listener{Listen("127.0.0.1", &port)};
};

TEST_F(PeerIdentityOfNobody, AClientThatExitedBeforeAccept) {
  const pid_t child = fork();
  if (child == 0) {
    (void)!setresuid(kAnna, kAnna, kAnna);
    const int fd = Connect("127.0.0.1", port);
    _exit(write(fd, "kill", 4) == 4 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_EQ(status, 0);

  const Socket accepted(accept(listener.fd, nullptr, nullptr));
  ExpectNoAnswer(accepted.fd);
  std::array<char, 8> data{};
  EXPECT_EQ(read(accepted.fd, data.data(), data.size()), 4) << "its request can still be read";
}

TEST_F(PeerIdentityOfNobody, AClientThatClosedItsHalfOrReset) {
  for (const bool reset : {false, true}) {
    Socket client(Connect("127.0.0.1", port));
    const Socket accepted(accept(listener.fd, nullptr, nullptr));
    const linger hard{1, 0};
    if (reset) setsockopt(client.fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    reset ? client.Close() : void(shutdown(client.fd, SHUT_WR));
    ExpectNoAnswer(accepted.fd);
  }
}

TEST_F(PeerIdentityOfNobody, WhatIsNoConnection) {
  for (const int socket : {listener.fd, -1}) {
    ExpectNoAnswer(socket);
    EXPECT_FALSE(IsFromThisMachine(socket));
  }
}

TEST(PeerIdentity, KnowsThisMachinesAddresses) {
  const auto isOwn = [](const char* text) {
    sockaddr_storage storage{};
    const QByteArray address = Address(text, 80);
    std::memcpy(&storage, address.constData(), static_cast<std::size_t>(address.size()));
    return IsOwnAddress(storage);
  };
  for (const char* own : {"127.0.0.1", "127.9.8.7"}) EXPECT_TRUE(isOwn(own)) << own;
  for (const char* documentation : {"192.0.2.1", "2001:db8::1"})
    EXPECT_FALSE(isOwn(documentation)) << documentation;
  EXPECT_FALSE(IsOwnAddress(sockaddr_storage{}));
}

}  // namespace
}  // namespace vardell::server
