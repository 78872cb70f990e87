#include "server/KillServer.h"

#include <gtest/gtest.h>

#include <QRegularExpression>
#include <atomic>
#include <vector>

#include "Common Sources/Caps.h"
#include "tests/server/Client.h"
#include "tests/server/NetworkThread.h"
#include "tests/support/Waiting.h"

namespace vardell::server {
namespace {

using namespace test;

QByteArray KillFrame(const QString& text) {
  return FrameOf(RequestKind::KillProcess, QStringList{text});
}

class KillServerTest : public testing::Test {
 protected:
  using Request = std::pair<pid_t, uid_t>;

  void Start() {
    KillServer::Options options;
    options.port = 0;
    options.log = [this](const LogEvent& event) { events_.push_back(event); };
    options.logMinute = logMinute_;
    options.kill = [this](pid_t pid, uid_t uid) {
      requests_.emplace_back(pid, uid);
      return KillResult::Killed;
    };
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

  // What the network's thread has put there once there are `count`.
  template <typename Items>
  Items Await(const Items& items, std::size_t count) {
    Items copy;
    WaitUntil([&] {
      network_.Run([&] { copy = items; });
      return copy.size() >= count;
    });
    return copy;
  }
  std::vector<Request> Requests(std::size_t count) { return Await(requests_, count); }
  std::vector<LogEvent> Events(std::size_t count) { return Await(events_, count); }
  std::vector<QString> Lines(std::size_t count) {
    const std::vector<LogEvent> events = Events(count);
    return {events.begin(), events.end()};
  }

  NetworkThread network_;
  std::unique_ptr<KillServer> server_;
  std::uint16_t port_ = 0;
  std::vector<Request> requests_;
  std::vector<LogEvent> events_;
  std::chrono::milliseconds logMinute_{60000};
  std::atomic<bool> unknown_{false};
};

TEST_F(KillServerTest, HandsPidAndUserOnAndLogsOneLineForEach) {
  Start();
  const Client client(port_);
  for (const char byte : KillFrame(QStringLiteral("4711"))) client.Send(QByteArray(1, byte));
  client.Send(KillFrame(QStringLiteral("4712")) + KillFrame(QStringLiteral("4713")));
  const uid_t me = geteuid();
  EXPECT_EQ(Requests(3), (std::vector<Request>{{4711, me}, {4712, me}, {4713, me}}));
  const LogEvent first = Events(3).at(0);
  EXPECT_EQ(first.message, QStringLiteral("kill request of uid %1 for pid 4711: killed").arg(me));
  EXPECT_STREQ(first.name, "kill-done");
  EXPECT_EQ(first.peerUid, me);
  EXPECT_EQ(first.pid, 4711);
  EXPECT_FALSE(client.HasSomethingToRead()) << "no reply is ever sent";
  EXPECT_FALSE(Client(port_, "127.0.0.2").IsConnected()) << "one loopback address only";
}

// --- Refused.

TEST_F(KillServerTest, ATextThatIsNoPidIsRefusedAndTheConnectionGoesOn) {
  Start();
  const Client client(port_);
  const char* const kTexts[] = {"", "abc", "12x", " 12", "-12", "0", "+12", "1e3", "2147483648"};
  for (const char* text : kTexts) client.Send(KillFrame(QString::fromLatin1(text)));
  client.Send(KillFrame(QStringLiteral("4711")));
  EXPECT_EQ(Requests(1), (std::vector<Request>{{4711, geteuid()}}));
  const auto lines = Lines(std::size(kTexts) + 1);
  EXPECT_EQ(lines.size(), std::size(kTexts) + 1);
  EXPECT_TRUE(lines.front().endsWith(QStringLiteral("for what is no pid: refused")));
}

TEST_F(KillServerTest, OfAFloodTheFirstLinesAndTheCountAreLogged) {
  constexpr int kRequests = 100;
  logMinute_ = std::chrono::seconds(1);
  Start();
  const Client client(port_);
  client.Send(KillFrame(QStringLiteral("none")).repeated(kRequests));
  const QRegularExpression sum(
      QStringLiteral("^uid %1: (\\d+) more lines like these \\(kill-refused\\)").arg(geteuid()));
  std::size_t lines = 0;
  const auto counted = [&] {
    int count = 0;
    const std::vector<QString> all = Lines(0);
    lines = all.size();
    for (const QString& line : all) {
      const auto match = sum.match(line);
      count += match.hasMatch() ? match.captured(1).toInt() : 1;
    }
    return count;
  };
  EXPECT_TRUE(WaitUntil([&] { return counted() == kRequests; })) << counted();
  EXPECT_LT(lines, std::size_t{kRequests});
}

TEST_F(KillServerTest, WhatIsNoKillRequestOrNobodysClosesTheConnection) {
  Start();
  const QByteArray good = KillFrame(QStringLiteral("4711"));
  const struct {
    const char* what;
    QByteArray bytes;
  } kRows[] = {
      {"another kind", FrameOf(RequestKind::FetchLimits, good.mid(9))},
      {"an empty payload", FrameOf(RequestKind::KillProcess, QByteArray())},
      {"a string longer than its frame",
       FrameOf(RequestKind::KillProcess, QByteArray::fromHex("0500000034373131"))},
      {"bytes behind the string",
       FrameOf(RequestKind::KillProcess, QByteArray::fromHex("040000003437313100"))},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    const Client client(port_);
    client.Send(row.bytes + good);  // unheard behind it
    EXPECT_TRUE(client.IsClosedByServer());
  }
  unknown_ = true;
  const Client client(port_);
  client.Send(good);
  EXPECT_TRUE(client.IsClosedByServer()) << "unheard, of an unknown user";
  EXPECT_TRUE(Lines(1).back().contains(QStringLiteral("unknown user")));
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

}  // namespace
}  // namespace vardell::server
