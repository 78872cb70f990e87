#include "server/PeerIdentity.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace vardell::server {
namespace {

constexpr int kAnswerMs = 200;

// An address of either family, IPv4-mapped ones as plain IPv4.
struct Endpoint {
  int family = AF_UNSPEC;
  std::array<std::uint32_t, 4> address{};  // network order
  std::uint16_t port = 0;                  // network order
  std::uint32_t interface = 0;             // of a link-local address
};

struct Descriptor {
  explicit Descriptor(int descriptor) : fd(descriptor) {}
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  const int fd;
};

Endpoint FromIn6(const sockaddr_in6& in6) {
  Endpoint endpoint;
  endpoint.port = in6.sin6_port;
  std::array<std::uint32_t, 4> words{};
  std::memcpy(words.data(), &in6.sin6_addr, sizeof(words));
  if (IN6_IS_ADDR_V4MAPPED(&in6.sin6_addr)) {
    endpoint.family = AF_INET;
    endpoint.address[0] = words[3];
    return endpoint;
  }
  endpoint.family = AF_INET6;
  endpoint.address = words;
  if (IN6_IS_ADDR_LINKLOCAL(&in6.sin6_addr)) endpoint.interface = in6.sin6_scope_id;
  return endpoint;
}

std::optional<Endpoint> FromSockaddr(const sockaddr_storage& storage) {
  if (storage.ss_family == AF_INET) {
    sockaddr_in in{};
    std::memcpy(&in, &storage, sizeof(in));
    return Endpoint{AF_INET, {in.sin_addr.s_addr, 0, 0, 0}, in.sin_port, 0};
  }
  if (storage.ss_family == AF_INET6) {
    sockaddr_in6 in6{};
    std::memcpy(&in6, &storage, sizeof(in6));
    return FromIn6(in6);
  }
  return std::nullopt;
}

using NameOfSocket = int (*)(int, sockaddr*, socklen_t*);

std::optional<Endpoint> NameOf(NameOfSocket which, int socket) {
  sockaddr_storage storage{};
  socklen_t size = sizeof(storage);
  if (which(socket, reinterpret_cast<sockaddr*>(&storage), &size) != 0) return std::nullopt;
  return FromSockaddr(storage);
}

bool IsEstablished(int socket) {
  tcp_info info{};
  socklen_t size = sizeof(info);
  return getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
         info.tcpi_state == TCP_ESTABLISHED;
}

struct Query {
  nlmsghdr header{};
  inet_diag_req_v2 request{};
};

Query MakeQuery(const Endpoint& client, const Endpoint& ours) {
  Query query;
  query.header.nlmsg_len = sizeof(query);
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = NLM_F_REQUEST;
  query.request.sdiag_family = static_cast<std::uint8_t>(client.family);
  query.request.sdiag_protocol = IPPROTO_TCP;
  query.request.idiag_states = ~0u;
  inet_diag_sockid& id = query.request.id;
  id.idiag_sport = client.port;
  id.idiag_dport = ours.port;
  std::copy(client.address.begin(), client.address.end(), id.idiag_src);
  std::copy(ours.address.begin(), ours.address.end(), id.idiag_dst);
  id.idiag_if = client.interface;
  id.idiag_cookie[0] = id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  return query;
}

PeerLookup FromErrorMessage(const nlmsghdr* header) {
  const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(header));
  return header->nlmsg_len >= NLMSG_LENGTH(sizeof(*error)) && error->error == -ENOENT
             ? PeerLookup::NotIdentified
             : PeerLookup::Unavailable;
}

// Where no connection has the tuple the kernel answers with a listener of that port.
bool IsConnectionOfProcess(const inet_diag_msg& message, const Query& query) {
  return message.idiag_state == TCP_ESTABLISHED && message.idiag_inode != 0 &&
         message.id.idiag_sport == query.request.id.idiag_sport &&
         message.id.idiag_dport == query.request.id.idiag_dport;
}

PeerLookup ReadAnswer(int netlink, const Query& query, std::uint32_t* uid) {
  pollfd wait{netlink, POLLIN, 0};
  if (poll(&wait, 1, kAnswerMs) != 1) return PeerLookup::Unavailable;
  alignas(nlmsghdr) std::array<char, 4096> buffer;
  const ssize_t size = recv(netlink, buffer.data(), buffer.size(), 0);
  const auto* header = reinterpret_cast<const nlmsghdr*>(buffer.data());
  if (size <= 0 || !NLMSG_OK(header, static_cast<std::size_t>(size)))
    return PeerLookup::Unavailable;
  if (header->nlmsg_type == NLMSG_ERROR) return FromErrorMessage(header);
  if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
      header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
    return PeerLookup::Unavailable;
  }
  inet_diag_msg message{};
  std::memcpy(&message, NLMSG_DATA(header), sizeof(message));
  if (!IsConnectionOfProcess(message, query)) return PeerLookup::NotIdentified;
  *uid = message.idiag_uid;
  return PeerLookup::Answered;
}

PeerLookup AskKernel(const Endpoint& client, const Endpoint& ours, std::uint32_t* uid) {
  const Descriptor netlink(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (netlink.fd < 0) return PeerLookup::Unavailable;
  const Query query = MakeQuery(client, ours);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(netlink.fd, &query, sizeof(query), 0, reinterpret_cast<const sockaddr*>(&kernel),
             sizeof(kernel)) != static_cast<ssize_t>(sizeof(query))) {
    return PeerLookup::Unavailable;
  }
  return ReadAnswer(netlink.fd, query, uid);
}

// As the kernel prints an address: its 32-bit words as native numbers.
std::string TableForm(const Endpoint& endpoint, bool wide) {
  std::array<char, 48> text{};
  const auto& words = endpoint.address;
  const unsigned port = ntohs(endpoint.port);
  if (!wide) {
    std::snprintf(text.data(), text.size(), "%08X:%04X", words[0], port);
  } else if (endpoint.family == AF_INET) {
    std::snprintf(text.data(), text.size(), "%08X%08X%08X%08X:%04X", 0u, 0u, htonl(0xffff),
                  words[0], port);
  } else {
    std::snprintf(text.data(), text.size(), "%08X%08X%08X%08X:%04X", words[0], words[1], words[2],
                  words[3], port);
  }
  return text.data();
}

PeerLookup SearchTable(const char* path, const std::string& client, const std::string& ours,
                       std::uint32_t* uid) {
  std::ifstream table(path);
  if (!table) return PeerLookup::Unavailable;
  const std::string wanted = ": " + client + " " + ours + " 01 ";  // 01: established
  for (std::string line; std::getline(table, line);) {
    const std::size_t at = line.find(wanted);
    if (at == std::string::npos) continue;
    std::uint32_t owner = 0;
    std::uint64_t inode = 0;
    if (std::sscanf(line.c_str() + at + wanted.size(), "%*s %*s %*s %" SCNu32 " %*s %" SCNu64,
                    &owner, &inode) != 2 ||
        inode == 0) {
      return PeerLookup::NotIdentified;
    }
    *uid = owner;
    return PeerLookup::Answered;
  }
  return PeerLookup::NotIdentified;
}

// An IPv4 connection stands in either table, by the family of the client's socket.
PeerLookup SearchTables(const Endpoint& client, const Endpoint& ours, std::uint32_t* uid) {
  const PeerLookup wide =
      SearchTable("/proc/net/tcp6", TableForm(client, true), TableForm(ours, true), uid);
  if (client.family == AF_INET6 || wide == PeerLookup::Answered) return wide;
  return SearchTable("/proc/net/tcp", TableForm(client, false), TableForm(ours, false), uid);
}

using Lookup = PeerLookup (*)(const Endpoint& client, const Endpoint& ours, std::uint32_t* uid);

// Our own end is looked at last: while it is open nobody else can have had its addresses.
PeerLookup LookUp(int socket, Lookup lookup, std::uint32_t* uid) {
  const std::optional<Endpoint> client = NameOf(getpeername, socket);
  const std::optional<Endpoint> ours = NameOf(getsockname, socket);
  if (!client || !ours || client->family != ours->family) return PeerLookup::NotIdentified;
  std::uint32_t found = 0;
  const PeerLookup result = lookup(*client, *ours, &found);
  if (result != PeerLookup::Answered) return result;
  if (!IsEstablished(socket)) return PeerLookup::NotIdentified;
  *uid = found;
  return result;
}

}  // namespace

PeerLookup AskSocketDiagnostics(int socket, std::uint32_t* uid) {
  return LookUp(socket, AskKernel, uid);
}

PeerLookup ReadSocketTable(int socket, std::uint32_t* uid) {
  return LookUp(socket, SearchTables, uid);
}

std::optional<std::uint32_t> UserBehind(int socket) {
  std::uint32_t uid = 0;
  PeerLookup result = AskSocketDiagnostics(socket, &uid);
  if (result == PeerLookup::Unavailable) result = ReadSocketTable(socket, &uid);
  if (result != PeerLookup::Answered) return std::nullopt;
  return uid;
}

// Only an address of this machine can be bound.
bool IsOwnAddress(sockaddr_storage address) {
  socklen_t size = 0;
  if (address.ss_family == AF_INET) {
    size = sizeof(sockaddr_in);
    reinterpret_cast<sockaddr_in*>(&address)->sin_port = 0;
  } else if (address.ss_family == AF_INET6) {
    size = sizeof(sockaddr_in6);
    reinterpret_cast<sockaddr_in6*>(&address)->sin6_port = 0;
  } else {
    return false;
  }
  const Descriptor probe(socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return probe.fd >= 0 && bind(probe.fd, reinterpret_cast<const sockaddr*>(&address), size) == 0;
}

bool IsFromThisMachine(int socket) {
  sockaddr_storage peer{};
  socklen_t size = sizeof(peer);
  return getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0 && IsOwnAddress(peer);
}

}  // namespace vardell::server
