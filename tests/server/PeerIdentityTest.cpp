#include "server/PeerIdentity.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <utility>

#include "tests/support/OtherUsers.h"

namespace vardell::server {
namespace {

using namespace test;

sockaddr_storage Address(const std::string& text, std::uint16_t port) {
  sockaddr_storage storage{};
  auto* in = reinterpret_cast<sockaddr_in*>(&storage);
  auto* in6 = reinterpret_cast<sockaddr_in6*>(&storage);
  if (inet_pton(AF_INET, text.c_str(), &in->sin_addr) == 1) {
    in->sin_family = AF_INET;
    in->sin_port = htons(port);
  } else if (inet_pton(AF_INET6, text.c_str(), &in6->sin6_addr) == 1) {
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(port);
  }
  return storage;
}

socklen_t SizeOf(const sockaddr_storage& address) {
  return address.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
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
int Listen(const std::string& address, std::uint16_t* port) {
  sockaddr_storage storage = Address(address, 0);
  const int fd = socket(storage.ss_family, SOCK_STREAM, 0);
  socklen_t size = SizeOf(storage);
  const int no = 0;
  if (storage.ss_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof(no));
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&storage), size) != 0 || listen(fd, 5) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &size) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  *port = ntohs(reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
  return fd;
}

int Connect(const std::string& address, std::uint16_t port) {
  const sockaddr_storage storage = Address(address, port);
  const int fd = socket(storage.ss_family, SOCK_STREAM, 0);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&storage), SizeOf(storage)), 0)
      << address << ": " << strerror(errno);
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
  EXPECT_TRUE(IsOwnAddress(Address("127.0.0.1", 80)));
  EXPECT_TRUE(IsOwnAddress(Address("127.9.8.7", 0)));
  EXPECT_FALSE(IsOwnAddress(Address("192.0.2.1", 80))) << "reserved for documentation";
  EXPECT_FALSE(IsOwnAddress(Address("2001:db8::1", 80))) << "reserved for documentation";
  EXPECT_FALSE(IsOwnAddress(sockaddr_storage{}));
}

}  // namespace
}  // namespace vardell::server
