// Many connections on one thread, each with one request under way: fetches, reports, or a write to
// Redis. bench/server-load/run starts it.
//
//   load_generator MODE ADDRESS PORT FROM[,FROM...] CONNECTIONS SECONDS USER IDENTIFIERS
//
// MODE "fetch": kind 1. "report": kind 6, then kind 1, whose answer says that the report is stored.
// "redis": INCRBY. "hold": one fetch on each connection, "ready", and nothing until standard input
// ends. "show": prints the answer to one fetch as it is. Connections come from the FROM addresses
// in turn. Identifiers are org.example.app0 and on; no two connections of one address have one in
// common, so that each lane has one connection.
//
// Prints one line: requests a second, the median and the 99th percentile of their time in
// microseconds, and how many were answered in all, the warm-up's included.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "link/Frame.h"
#include "link/MessageEncoding.h"

namespace {

using Clock = std::chrono::steady_clock;
using vardell::RequestKind;

constexpr std::chrono::seconds kWarmUp{1};
constexpr std::chrono::seconds kPatience{10};
constexpr std::size_t kPackedRecordBytes = 43;
constexpr std::size_t kCreditInRecord = 8;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "load_generator: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

enum class Mode { Fetch, Report, Redis, Hold, Show };

struct Options {
  Mode mode = Mode::Fetch;
  std::string address;
  std::uint16_t port = 0;
  std::vector<std::string> from;
  std::size_t connections = 0;
  std::chrono::seconds seconds{0};
  std::string user;
  std::size_t identifiers = 0;
};

struct Connection {
  int fd = -1;
  std::size_t identifier = 0;  // the first one; then every `stride`th
  std::size_t first = 0;
  std::size_t stride = 1;
  std::vector<std::int32_t> handed;  // by turn
  std::string reply;                 // what has come of it
  Clock::time_point sent;
};

std::string FrameOf(RequestKind kind, const QByteArray& payload) {
  std::uint32_t reserved = 0;
  return vardell::BuildRequestFrame(kind, payload, reserved).toStdString();
}

class Load {
 public:
  explicit Load(Options options) : options_(std::move(options)) {}

  void Run() {
    BuildRequests();
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    for (std::size_t i = 0; i < options_.connections; ++i) Open(i);
    const Clock::time_point start = Clock::now();
    countFrom_ = start + kWarmUp;
    countUntil_ = countFrom_ + options_.seconds;
    for (Connection& connection : connections_) Send(connection);
    while (underWay_ > 0 && Clock::now() < countUntil_ + kPatience) TakeTurn();
    if (options_.mode == Mode::Hold) return Hold();
    if (options_.mode != Mode::Show) Print();
  }

 private:
  void BuildRequests() {
    const QString user = QString::fromStdString(options_.user);
    for (std::size_t i = 0; i < options_.identifiers; ++i) {
      const std::string name = "org.example.app" + std::to_string(i);
      const QString identifier = QString::fromStdString(name);
      if (options_.mode == Mode::Redis) {
        requests_.push_back("*3\r\n$6\r\nINCRBY\r\n$" + std::to_string(name.size()) + "\r\n" +
                            name + "\r\n$1\r\n1\r\n");
        continue;
      }
      QByteArray names;
      vardell::AppendStringToData(names, user);
      vardell::AppendStringToData(names, identifier);
      std::string request = FrameOf(RequestKind::FetchLimits, names);
      if (options_.mode == Mode::Report) {
        const vardell::LimitsRecord record;
        request = FrameOf(RequestKind::CreditReport,
                          vardell::AppendLimitsRecordToData(user, identifier, record)) +
                  request;
        reportBytes_.push_back(request.size() - FrameOf(RequestKind::FetchLimits, names).size());
      }
      requests_.push_back(std::move(request));
    }
  }

  void Open(std::size_t index) {
    const std::size_t addresses = options_.from.size();
    Connection connection;
    connection.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connection.fd < 0) Fail("cannot make a socket");
    const int yes = 1;
    setsockopt(connection.fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &yes, sizeof yes);
    sockaddr_in from = AddressOf(options_.from[index % addresses], 0);
    if (bind(connection.fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0) Fail("bind");
    sockaddr_in to = AddressOf(options_.address, options_.port);
    if (connect(connection.fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) Fail("connect");
    setsockopt(connection.fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    fcntl(connection.fd, F_SETFL, O_NONBLOCK);
    connection.stride = (options_.connections + addresses - 1) / addresses;
    connection.first = index / addresses % options_.identifiers;
    connection.identifier = connection.first;
    const std::size_t turns =
        (options_.identifiers - connection.first + connection.stride - 1) / connection.stride;
    connection.handed.assign(turns, -1);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = index;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, connection.fd, &event) != 0) Fail("epoll_ctl");
    connections_.push_back(std::move(connection));
  }

  static sockaddr_in AddressOf(const std::string& text, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (inet_pton(AF_INET, text.c_str(), &address.sin_addr) != 1) Fail("no address: " + text);
    return address;
  }

  std::size_t TurnOf(const Connection& connection) const {
    return (connection.identifier - connection.first) / connection.stride;
  }

  void Send(Connection& connection) {
    std::string& request = requests_[connection.identifier];
    if (options_.mode == Mode::Report) {
      const std::int32_t reported = connection.handed[TurnOf(connection)] - 1;
      std::memcpy(request.data() + reportBytes_[connection.identifier] - kPackedRecordBytes +
                      kCreditInRecord,
                  &reported, sizeof reported);
    }
    connection.sent = Clock::now();
    if (send(connection.fd, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size())) {
      Fail("send");
    }
    ++underWay_;
  }

  void TakeTurn() {
    std::array<epoll_event, 256> ready;
    const int count = epoll_wait(epoll_, ready.data(), ready.size(), 100);
    for (int i = 0; i < count; ++i) Receive(connections_[ready[i].data.u64]);
  }

  void Receive(Connection& connection) {
    const ssize_t count = recv(connection.fd, buffer_.data(), buffer_.size(), 0);
    if (count < 0 && errno == EAGAIN) return;
    if (count <= 0) Fail("the server closed a connection");
    std::string_view reply(buffer_.data(), static_cast<std::size_t>(count));
    if (!connection.reply.empty()) reply = connection.reply.append(reply);
    if (!IsWhole(reply)) {
      connection.reply = std::string(reply);
      return;
    }
    Take(connection, reply);
    connection.reply.clear();
  }

  bool IsWhole(std::string_view reply) const {
    if (options_.mode == Mode::Redis) return reply.ends_with("\r\n");
    if (reply.size() < vardell::kReplyHeaderBytes) return false;
    std::uint32_t length = 0;
    std::memcpy(&length, reply.data(), sizeof length);
    return reply.size() >= vardell::kReplyHeaderBytes + ntohl(length);
  }

  void Take(Connection& connection, std::string_view reply) {
    const Clock::time_point now = Clock::now();
    --underWay_;
    ++answered_;
    if (now >= countFrom_ && now < countUntil_) {
      times_.push_back(static_cast<std::uint32_t>(
          std::chrono::duration_cast<std::chrono::microseconds>(now - connection.sent).count()));
    }
    const bool isRedis = options_.mode == Mode::Redis;
    if (isRedis ? !reply.starts_with(':') : !TakeCredit(connection, reply)) {
      errno = 0;
      Fail("an answer that is none: " + std::string(reply));
    }
    if (options_.mode == Mode::Show) std::fwrite(reply.data(), 1, reply.size(), stdout);
    if (options_.mode == Mode::Hold || options_.mode == Mode::Show) return;
    if (options_.mode != Mode::Fetch) {
      connection.identifier += connection.stride;
      if (connection.identifier >= options_.identifiers) connection.identifier = connection.first;
    }
    if (now < countUntil_) Send(connection);
  }

  bool TakeCredit(Connection& connection, std::string_view reply) const {
    const std::size_t key = reply.find("<key>Credit</key>");
    const std::size_t value = key == reply.npos ? key : reply.find("<integer>", key);
    if (value == reply.npos) return false;
    connection.handed[TurnOf(connection)] = std::atoi(reply.data() + value + 9);
    return true;
  }

  static void Hold() {
    std::puts("ready");
    std::fflush(stdout);
    char byte = 0;
    (void)!read(0, &byte, 1);
  }

  void Print() {
    const auto at = [this](double part) {
      if (times_.empty()) return 0u;
      const auto index = static_cast<std::size_t>(static_cast<double>(times_.size() - 1) * part);
      std::nth_element(times_.begin(), times_.begin() + static_cast<std::ptrdiff_t>(index),
                       times_.end());
      return times_[index];
    };
    const double rate =
        static_cast<double>(times_.size()) / static_cast<double>(options_.seconds.count());
    const std::uint32_t median = at(0.5);
    std::printf("%.0f %u %u %zu\n", rate, median, at(0.99), answered_);
  }

  Options options_;
  std::vector<std::string> requests_;     // by identifier
  std::vector<std::size_t> reportBytes_;  // of the request's first frame
  std::vector<Connection> connections_;
  int epoll_ = -1;
  std::size_t underWay_ = 0;
  std::size_t answered_ = 0;
  std::vector<std::uint32_t> times_;
  Clock::time_point countFrom_;
  Clock::time_point countUntil_;
  std::array<char, 65536> buffer_;
};

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  for (std::size_t from = 0; from <= text.size();) {
    const std::size_t comma = std::min(text.find(',', from), text.size());
    parts.push_back(text.substr(from, comma - from));
    from = comma + 1;
  }
  return parts;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 9) {
    std::fputs("load_generator: see bench/server-load/run\n", stderr);
    return 2;
  }
  const std::string mode = arguments[1];
  Options options;
  options.mode = mode == "fetch"    ? Mode::Fetch
                 : mode == "report" ? Mode::Report
                 : mode == "redis"  ? Mode::Redis
                 : mode == "hold"   ? Mode::Hold
                                    : Mode::Show;
  options.address = arguments[2];
  options.port = static_cast<std::uint16_t>(std::atoi(arguments[3]));
  options.from = Split(arguments[4]);
  options.connections = static_cast<std::size_t>(std::atoi(arguments[5]));
  options.seconds = std::chrono::seconds(std::atoi(arguments[6]));
  options.user = arguments[7];
  options.identifiers = static_cast<std::size_t>(std::atoi(arguments[8]));
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
  }
  Load(std::move(options)).Run();
}
