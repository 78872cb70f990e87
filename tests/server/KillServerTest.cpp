#include "server/KillServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "Common Sources/Caps.h"
#include "link/Frame.h"
#include "link/MessageEncoding.h"
#include "tests/server/NetworkThread.h"
#include "tests/server/OtherUsers.h"

namespace vardell::server {
namespace {

using test::AsUser;
using test::kAnna;
using test::NetworkThread;
using test::Sleeper;

constexpr int kPatienceMs = 10000;

class Client {
 public:
  explicit Client(std::uint16_t port, const char* address = "127.0.0.1") {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    inet_pton(AF_INET, address, &in.sin_addr);
    connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&in), sizeof(in)) == 0;
  }
  ~Client() { close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool IsConnected() const { return connected_; }
  void Send(const QByteArray& bytes) const {
    (void)!send(fd_, bytes.constData(), static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL);
  }
  bool IsClosedByServer() const {
    char byte = 0;
    return WaitForSomething() && recv(fd_, &byte, 1, 0) <= 0;
  }
  bool HasSomethingToRead() const {
    pollfd wait{fd_, POLLIN, 0};
    return poll(&wait, 1, 0) == 1;
  }

 private:
  bool WaitForSomething() const {
    pollfd wait{fd_, POLLIN, 0};
    return poll(&wait, 1, kPatienceMs) == 1;
  }

  const int fd_ = socket(AF_INET, SOCK_STREAM, 0);
  bool connected_ = false;
};

QByteArray Frame(RequestKind kind, const QByteArray& payload) {
  std::uint32_t reserved = 0;
  return BuildRequestFrame(kind, payload, reserved);
}

QByteArray KillFrame(const QString& text) {
  QByteArray payload;
  AppendStringToData(payload, text);
  return Frame(RequestKind::KillProcess, payload);
}

class KillServerTest : public testing::Test {
 protected:
  struct Request {
    pid_t pid;
    uid_t uid;
    bool operator==(const Request& other) const { return pid == other.pid && uid == other.uid; }
  };

  void Start(bool real = false) {
    KillServer::Options options;
    options.port = 0;
    options.log = [this](const QString& line) { Add(&lines_, line); };
    if (!real) {
      options.kill = [this](pid_t pid, uid_t uid) {
        Add(&requests_, Request{pid, uid});
        return KillResult::Killed;
      };
    }
    options.userBehind = [this](int socket) {
      return unknown_ ? std::nullopt : UserBehind(socket);
    };
    network_.Run([&] {
      server_ = std::make_unique<KillServer>(network_.Context(), std::move(options));
      port_ = server_->Port();
    });
  }
  void TearDown() override {
    network_.Run([this] { server_.reset(); });
  }

  template <typename Item>
  void Add(std::vector<Item>* items, Item item) {
    const std::lock_guard lock(mutex_);
    items->push_back(std::move(item));
    changed_.notify_all();
  }
  template <typename Item>
  std::vector<Item> Await(const std::vector<Item>& items, std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(kPatienceMs),
                      [&] { return items.size() >= count; });
    return items;
  }
  std::vector<Request> Requests(std::size_t count) { return Await(requests_, count); }
  std::vector<QString> Lines(std::size_t count) { return Await(lines_, count); }

  NetworkThread network_;
  std::unique_ptr<KillServer> server_;
  std::uint16_t port_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Request> requests_;
  std::vector<QString> lines_;
  std::atomic<bool> unknown_{false};
};

TEST_F(KillServerTest, HandsPidAndUserOnAndLogsOneLineForEach) {
  Start();
  const Client client(port_);
  client.Send(KillFrame(QStringLiteral("4711")) + KillFrame(QStringLiteral("4712")));
  EXPECT_EQ(Requests(2), (std::vector<Request>{{4711, geteuid()}, {4712, geteuid()}}));
  const auto lines = Lines(2);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], QStringLiteral("kill request of uid %1 for pid 4711: killed").arg(geteuid()));
  EXPECT_FALSE(client.HasSomethingToRead()) << "no reply is ever sent";
}

TEST_F(KillServerTest, AFrameMayComeByteByByte) {
  Start();
  const Client client(port_);
  for (const char byte : KillFrame(QStringLiteral("4711"))) client.Send(QByteArray(1, byte));
  EXPECT_EQ(Requests(1), (std::vector<Request>{{4711, geteuid()}}));
}

TEST_F(KillServerTest, EndsARealProcessOfTheConnectedUserOnly) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: another user connects";
  Start(true);
  const Sleeper roots;
  const Sleeper annas(Sleeper::OfUser(kAnna));
  AsUser(kAnna, [&] {
    const Client client(port_);
    client.Send(KillFrame(QString::number(getpid())) + KillFrame(QString::number(annas.Pid())));
    Lines(2);
  });
  EXPECT_TRUE(annas.DiesOfKill());
  EXPECT_EQ(
      Lines(2).at(0),
      QStringLiteral("kill request of uid 4242 for pid %1: refused: protected").arg(getpid()));
  EXPECT_TRUE(roots.IsAlive());
}

TEST_F(KillServerTest, ListensOnOneLoopbackAddressOnly) {
  Start();
  EXPECT_TRUE(Client(port_).IsConnected());
  EXPECT_FALSE(Client(port_, "127.0.0.2").IsConnected());
}

// --- Refused.

TEST_F(KillServerTest, ATextThatIsNoPidIsRefusedAndTheConnectionGoesOn) {
  Start();
  const Client client(port_);
  const char* const kTexts[] = {"", "abc", "12x", " 12", "-12", "0", "+12", "1e3", "99999999999"};
  for (const char* text : kTexts) client.Send(KillFrame(QString::fromLatin1(text)));
  client.Send(KillFrame(QStringLiteral("4711")));
  EXPECT_EQ(Requests(1), (std::vector<Request>{{4711, geteuid()}}));
  const auto lines = Lines(std::size(kTexts) + 1);
  EXPECT_EQ(lines.size(), std::size(kTexts) + 1);
  EXPECT_TRUE(lines.front().endsWith(QStringLiteral("for what is no pid: refused")));
}

TEST_F(KillServerTest, WhatIsNoKillRequestClosesTheConnection) {
  Start();
  const QByteArray good = KillFrame(QStringLiteral("4711"));
  const struct {
    const char* what;
    QByteArray bytes;
  } kRows[] = {
      {"another kind", Frame(RequestKind::FetchLimits, good.mid(9))},
      {"kind 0", Frame(RequestKind{0}, {})},
      {"a length below the header's", QByteArray::fromHex("000000080700000000")},
      {"an enormous length", QByteArray::fromHex("7fffffff0700000000")},
      {"an empty payload", Frame(RequestKind::KillProcess, {})},
      {"a string longer than its frame",
       Frame(RequestKind::KillProcess, QByteArray::fromHex("0500000034373131"))},
      {"a string of 4 GiB", Frame(RequestKind::KillProcess, QByteArray::fromHex("ffffffff34"))},
      {"bytes behind the string",
       Frame(RequestKind::KillProcess, QByteArray::fromHex("040000003437313100"))},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    const Client client(port_);
    client.Send(row.bytes);
    EXPECT_TRUE(client.IsClosedByServer());
  }
  EXPECT_TRUE(Requests(0).empty());
}

TEST_F(KillServerTest, AConnectionOfAnUnknownUserIsClosedUnheard) {
  Start();
  unknown_ = true;
  const Client client(port_);
  client.Send(KillFrame(QStringLiteral("4711")));
  EXPECT_TRUE(client.IsClosedByServer());
  EXPECT_TRUE(Lines(1).at(0).contains(QStringLiteral("unknown user")));
  EXPECT_TRUE(Requests(0).empty());
}

TEST_F(KillServerTest, AUserWhoHoldsConnectionsLosesTheOldestAndTheNewestWorks) {
  Start();
  std::vector<std::unique_ptr<Client>> held;
  for (std::size_t i = 0; i < kMaxKillConnectionsOfUser + 1; ++i)
    held.push_back(std::make_unique<Client>(port_));
  EXPECT_TRUE(held.front()->IsClosedByServer());
  held.back()->Send(KillFrame(QStringLiteral("4711")));
  held[1]->Send(KillFrame(QStringLiteral("4712")));
  EXPECT_EQ(Requests(2).size(), 2u);
}

TEST_F(KillServerTest, ATakenPortIsOneClearLine) {
  Start();
  KillServer::Options options;
  options.port = port_;
  network_.Run([&] {
    try {
      const KillServer second(network_.Context(), options);
      ADD_FAILURE() << "two listeners on one port";
    } catch (const std::runtime_error& error) {
      const QString line = QString::fromUtf8(error.what());
      EXPECT_TRUE(line.contains(QStringLiteral("127.0.0.1:%1").arg(port_))) << error.what();
      EXPECT_TRUE(line.contains(QStringLiteral("Stop the program"))) << error.what();
      EXPECT_FALSE(line.contains(QLatin1Char('\n')));
    }
  });
}

}  // namespace
}  // namespace vardell::server
