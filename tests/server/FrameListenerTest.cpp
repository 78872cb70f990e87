#include "server/FrameListener.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <numeric>
#include <vector>

#include "Common Sources/Caps.h"
#include "server/Household.h"
#include "tests/server/Client.h"
#include "tests/server/NetworkThread.h"
#include "tests/support/Waiting.h"

namespace vardell::server {
namespace {

using namespace test;

// A frame asks for what it wants: "TEXT AFTER RELEASE" is answered with TEXT, to be kept back until
// AFTER is stored; before that RELEASE is released by the handler itself.
QByteArray Ask(const QByteArray& text, int after = 0, int release = 0) {
  const QByteArray words = text + ' ' + QByteArray::number(after) + ' ';
  return FrameOf(RequestKind::FetchLimits, words + QByteArray::number(release));
}

QByteArray Answers(const QList<QByteArray>& texts) {
  return std::accumulate(
      texts.begin(), texts.end(), QByteArray(),
      [](const QByteArray& all, const QByteArray& text) { return all + BuildReply(text); });
}

class FrameListenerTest : public testing::Test {
 protected:
  void SetUp() override {
    FrameListener::Options options;
    options.address = QStringLiteral("127.0.0.1");
    options.mostConnections = 100;
    options.mostOfOnePeer = 1;
    options.mostOfOneUser = 100;
    options.userBehind = [this](int socket) { return UserOf(socket); };
    options.handle = [this](const AgentConnection& from, const RequestFrame& frame) {
      return Handle(from, frame);
    };
    options.log = [this](const LogEvent& event) { lines_.push_back(event.message); };
    network_.Run([&] {
      listener_ = std::make_unique<FrameListener>(network_.Context(), std::move(options));
      port_ = listener_->Port();
    });
  }
  void TearDown() override {
    network_.Run([this] { listener_.reset(); });
  }

  std::optional<std::uint32_t> UserOf(int socket) {
    const auto option = [socket](int level, int name) {
      int value = 0;
      socklen_t size = sizeof value;
      getsockopt(socket, level, name, &value, &size);
      return value;
    };
    EXPECT_TRUE(option(SOL_SOCKET, SO_KEEPALIVE) && option(IPPROTO_TCP, TCP_NODELAY));
    // A machine that is gone is not waited for forever.
    EXPECT_LE(option(IPPROTO_TCP, TCP_KEEPIDLE) +
                  option(IPPROTO_TCP, TCP_KEEPINTVL) * option(IPPROTO_TCP, TCP_KEEPCNT),
              600);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), 600'000);
    return 7;
  }

  RequestOutcome Handle(const AgentConnection& from, const RequestFrame& frame) {
    handled_.push_back(from.id);
    const QList<QByteArray> words = frame.payload.toByteArray().split(' ');
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
    while (words.at(0) == "costly" && std::chrono::steady_clock::now() < end) continue;
    if (words.at(2) != "0") listener_->Release(words.at(2).toULongLong());
    return {BuildReply(words.at(0)), std::nullopt, false, words.at(1).toULongLong()};
  }

  // Once so many frames were handled; their turn is over then.
  void AwaitHandled(std::size_t count) {
    ASSERT_TRUE(WaitUntil([&] { return Of(handled_).size() >= count; }));
  }
  template <typename Items>
  Items Of(const Items& items) {
    Items copy;
    network_.Run([&] { copy = items; });
    return copy;
  }
  void Release(std::uint64_t stored) {
    network_.Run([&] { listener_->Release(stored); });
  }
  int Connections() {
    int count = 0;
    network_.Run([&] { count = listener_->Connections(); });
    return count;
  }

  NetworkThread network_;
  std::unique_ptr<FrameListener> listener_;
  std::uint16_t port_ = 0;
  std::vector<std::uint64_t> handled_;  // whose frames, in order
  std::vector<QString> lines_;
};

TEST_F(FrameListenerTest, KeepsRepliesBackInOrderUntilTheirChangesAreStored) {
  const Client agent(port_);
  agent.Send(Ask("now") + Ask("first", 1) + Ask("third", 3) + Ask("second", 2) + Ask("any"));
  AwaitHandled(5);
  EXPECT_EQ(agent.ReadUntil("now"), Answers({"now"}));
  EXPECT_FALSE(agent.HasSomethingToRead());
  Release(1);
  EXPECT_EQ(agent.ReadUntil("first"), Answers({"first"}));
  Release(2);
  Release(0);
  EXPECT_FALSE(agent.HasSomethingToRead()) << "ahead of another that waits";
  Release(3);
  EXPECT_EQ(agent.ReadUntil("any"), Answers({"third", "second", "any"}));
  agent.Send(Ask("old", 2));
  EXPECT_EQ(agent.ReadUntil("old"), Answers({"old"}));
  EXPECT_TRUE(Of(lines_).empty());
}

TEST_F(FrameListenerTest, WhatIsNotStoredInTimeGoesOutAllTheSame) {
  const Client one(port_);
  const Client other(port_);
  const auto start = std::chrono::steady_clock::now();
  one.Send(Ask("one", 8) + Ask("more"));
  other.Send(Ask("other", 9));
  EXPECT_EQ(one.ReadUntil("more"), Answers({"one", "more"}));
  EXPECT_EQ(other.ReadUntil("other"), Answers({"other"}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, kLongestReplyDelay);
  one.Send(Ask("again", 10));
  EXPECT_EQ(one.ReadUntil("again"), Answers({"again"}));
  const std::vector<QString> lines = Of(lines_);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(lines.front().contains(QStringLiteral("before their changes are stored")));
}

TEST_F(FrameListenerTest, AHandlerMayReleaseAndConnectionsMayGoMeanwhile) {
  const Client one(port_);
  const Client other(port_);
  {
    const Client gone(port_);
    gone.Send(Ask("lost", 1) + Ask("too", 2));
    AwaitHandled(2);
  }
  EXPECT_TRUE(WaitUntil([this] { return Connections() == 2; }));
  one.Send(Ask("one", 5));
  AwaitHandled(3);
  other.Send(Ask("own", 4) + Ask("later", 6) + Ask("end", 5, 5));
  EXPECT_EQ(one.ReadUntil("one"), Answers({"one"}));
  EXPECT_EQ(other.ReadUntil("own"), Answers({"own"}));
  AwaitHandled(6);
  EXPECT_FALSE(other.HasSomethingToRead());
  other.Send(Ask("last", 7, 7));
  EXPECT_EQ(other.ReadUntil("last"), Answers({"later", "end", "last"}));
}

TEST_F(FrameListenerTest, WhatIsKeptBackCountsAsUnread) {
  const Client agent(port_);
  const Client greedy(port_);
  agent.Send(Ask("mine", 1));
  const QByteArray big(16000, 'x');
  for (std::size_t sent = 0; sent <= kMaxUnsentReplyBytes; sent += 16000) greedy.Send(Ask(big, 1));
  EXPECT_TRUE(greedy.IsClosedByServer());
  Release(1);
  EXPECT_EQ(agent.ReadUntil("mine"), Answers({"mine"}));
  EXPECT_TRUE(Of(lines_).at(0).contains(QStringLiteral("does not read its replies")));
}

// --- One for all.

TEST_F(FrameListenerTest, AFloodOfOneLetsTheOthersHaveTheirTurn) {
  for (const auto& [question, frames] : {std::pair("cheap", 16), std::pair("costly", 1)}) {
    SCOPED_TRACE(question);
    network_.Run([&] { handled_.clear(); });
    const Client flood(port_);
    const Client agent(port_);
    agent.Send(Ask("hello"));
    agent.ReadUntil("hello");
    network_.Run([&] {
      flood.Send(Ask(question).repeated(200));
      agent.Send(Ask("cheap"));
    });
    AwaitHandled(202);
    const std::vector<std::uint64_t> handled = Of(handled_);
    const auto turn = std::find(handled.begin() + 1, handled.end(), handled.front());
    EXPECT_LE(turn - handled.begin(), 1 + 2 * frames);
  }
}

TEST_F(FrameListenerTest, FramesOfAllSizesComeWholeHoweverTheyAreCut) {
  const Client agent(port_);
  QByteArray all;
  QByteArray expected;
  for (int i = 0; i < 400; ++i) {
    const QByteArray text = QByteArray::number(i) + QByteArray(i * 977 % 16300, '.');
    all += Ask(text);
    expected += BuildReply(text);
  }
  std::thread sender([&] { agent.Send(all); });
  QByteArray read;
  while (read.size() < expected.size()) {
    const QByteArray more = agent.ReadUntil(".");
    if (more.isEmpty()) break;
    read += more;
  }
  sender.join();
  EXPECT_EQ(read.size(), expected.size());
  EXPECT_TRUE(read == expected);
}

}  // namespace
}  // namespace vardell::server
