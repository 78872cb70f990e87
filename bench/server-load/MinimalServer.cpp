// The least that an answer costs: reads request frames and sends the same bytes for each of them.
// The reference for bench/server-load/run.
//
//   minimal_server ADDRESS FILE     FILE: what is sent; prints the port that it listens on
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kBytes = 4096;

struct Connection {
  std::size_t used = 0;
  std::array<char, kBytes> bytes;
};

class Server {
 public:
  explicit Server(std::string reply) : reply_(std::move(reply)) {}

  bool Listen(const char* address) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in where{};
    where.sin_family = AF_INET;
    socklen_t size = sizeof where;
    auto* any = reinterpret_cast<sockaddr*>(&where);
    if (inet_pton(AF_INET, address, &where.sin_addr) != 1 || bind(listener_, any, size) != 0 ||
        listen(listener_, SOMAXCONN) != 0 || getsockname(listener_, any, &size) != 0) {
      return false;
    }
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    std::printf("%d\n", ntohs(where.sin_port));
    std::fflush(stdout);
    return Watch(listener_);
  }

  void Run() {
    std::array<epoll_event, 256> ready;
    for (;;) {
      const int count = epoll_wait(epoll_, ready.data(), ready.size(), -1);
      for (int i = 0; i < count; ++i) {
        const int fd = ready[i].data.fd;
        fd == listener_ ? Accept() : Serve(fd);
      }
    }
  }

 private:
  bool Watch(int fd) const {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0;
  }

  void Accept() {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    const int yes = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (connections_.size() <= static_cast<std::size_t>(fd)) {
      connections_.resize(static_cast<std::size_t>(fd) + 1);
    }
    connections_[static_cast<std::size_t>(fd)].used = 0;
    (void)Watch(fd);
  }

  void Serve(int fd) {
    Connection& connection = connections_[static_cast<std::size_t>(fd)];
    const ssize_t count = recv(fd, connection.bytes.data() + connection.used,
                               connection.bytes.size() - connection.used, 0);
    if (count <= 0) {
      close(fd);
      return;
    }
    connection.used += static_cast<std::size_t>(count);
    std::size_t taken = 0;
    while (connection.used - taken >= sizeof(std::uint32_t)) {
      std::uint32_t length = 0;
      std::memcpy(&length, connection.bytes.data() + taken, sizeof length);
      length = ntohl(length);
      if (connection.used - taken < length) break;
      taken += length;
      (void)!send(fd, reply_.data(), reply_.size(), MSG_NOSIGNAL);
    }
    connection.used -= taken;
    std::memmove(connection.bytes.data(), connection.bytes.data() + taken, connection.used);
  }

  std::string reply_;
  int listener_ = -1;
  int epoll_ = -1;
  std::vector<Connection> connections_;  // by descriptor
};

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 3) return 2;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
  }
  std::ifstream file(arguments[2], std::ios::binary);
  Server server(std::string(std::istreambuf_iterator<char>(file), {}));
  if (!server.Listen(arguments[1])) return 1;
  server.Run();
}
