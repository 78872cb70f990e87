#include "link/RequestExchange.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>

#include "Common Sources/Caps.h"
#include "tests/link/LinkFixture.h"

namespace vardell {
namespace {

using namespace test;
using Peer = PeerConnection;

constexpr std::int16_t kQuick = 2;         // seconds: 200 ms here
constexpr std::int16_t kUnreached = 1200;  // two minutes here: what ends sooner did not wait for it

class ExchangeTest : public LinkTest {
 protected:
  std::int32_t Ask(std::int16_t seconds = kUnreached, const QByteArray& payload = "ask") {
    reply = "untouched";
    return Observe([&] {
      return SendRequest(link, RequestKind::FetchLimits, payload, seconds, true, &reply);
    });
  }
  std::int32_t Tell(const QByteArray& payload = "tell") {
    return Observe([&] {
      return SendRequest(link, RequestKind::CreditReport, payload, kUnreached, false, nullptr);
    });
  }
  void ExpectNextIsAnswered() {
    EXPECT_EQ(Ask(), 0);
    EXPECT_EQ(reply, "next");
    EXPECT_EQ(observed.err, "");
  }

  QByteArray reply;
};

// Does that with the first request; where the connection lasts, it behaves afterwards.
ScriptedPeer::Script First(const ScriptedPeer::Script& script) {
  return [script](Peer& peer) {
    peer.ReadFrame();
    script(peer);
    AnswerWith("next")(peer);
  };
}

ScriptedPeer::Script Sends(const QByteArray& bytes, void (Peer::*then)() = nullptr) {
  return [=](Peer& peer) {
    peer.Send(bytes);
    if (then) (peer.*then)();
  };
}

TEST_F(ExchangeTest, WhateverThePeerDoesTheResultIsClearAndTheNextRequestWorks) {
  const QByteArray hello = BuildReply("hello");
  const QByteArray chunk(60, 'c');
  const QByteArray many(3000, 'x');
  const struct {
    const char* behaviour;
    ScriptedPeer::Script script;
    QByteArray reply;
    const char* err = "";
    bool waits = false;  // for the deadline
  } rows[] = {
      {"answers in many chunks", Sends(BuildReply(many)), many},
      {"answers with just one chunk", Sends(BuildReply(chunk)), chunk},
      {"answers one byte at a time", [=](Peer& peer) { peer.SendByteByByte(hello); }, "hello"},
      {"closes before the reply", Sends("", &Peer::Close), "", kLostText},
      {"closes within the length", Sends(Hex("0000"), &Peer::Close), Hex("0000"), kLostText},
      {"closes within the body", Sends(hello.chopped(3), &Peer::Close), "he", kLostText},
      {"resets", Sends("", &Peer::Reset), "", kLostText},
      {"sends a length of 0", Sends(Hex("00000000")), "", "", true},
      {"sends more than it announced", Sends(hello + "abc"), "helloabc", "", true},
      {"sends less than it announced", Sends(hello.chopped(1)), "hell", "", true},
      {"answers when the next one comes",
       [](Peer& peer) { peer.ReadFrame().isEmpty() ? void() : AnswerWith("late")(peer); }, "", "",
       true},
      {"never reads again", Sends("", &Peer::HoldUntilPeerStops), "", "", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.behaviour);
    Serve({First(row.script), AnswerWith("next")});
    EXPECT_EQ(Ask(row.waits ? kQuick : kUnreached), 0);
    EXPECT_EQ(reply, row.reply);
    EXPECT_EQ(observed.err, row.err);
    EXPECT_EQ(observed.took >= kQuick * link.second, row.waits);
    EXPECT_LT(observed.took, 60s);
    ExpectNextIsAnswered();
  }
}

std::uint64_t PeakAddressSpaceKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmPeak:", 0) == 0) return std::stoull(line.substr(7));
  return 0;
}

TEST_F(ExchangeTest, AFloodBehindAHugeLengthIsKeptUpToTheCapOnly) {
  Serve({First([](Peer& peer) { peer.Flood(0x7fffffff); }), AnswerWith("next")});
  link.second = 500ms;
  const std::uint64_t peakBefore = PeakAddressSpaceKiB();
  EXPECT_EQ(Ask(kQuick), 0);
  EXPECT_GE(observed.took, kQuick * link.second);
  EXPECT_EQ(reply.size(), qsizetype(kMaxReplyBytes - kReplyHeaderBytes));
  EXPECT_LT(PeakAddressSpaceKiB() - peakBefore, 1u << 20);
  ExpectNextIsAnswered();
}

TEST_F(ExchangeTest, AFloodBehindACompleteReplyEndsTheConnectionNotTheAgent) {
  const QByteArray chunk(60, 'c');
  const auto floods = [=](Peer& peer) {
    peer.Send(BuildReply(chunk));
    peer.Flood(0);
  };
  const ScriptedPeer& peer = Serve({First(floods), AnswerWith("next")});
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, chunk);
  // Found while the first reply was tidied up, before the second request or at its deadline.
  for (int requests = 1; reply != "next" && requests < 4; ++requests) (void)Ask(kQuick);
  EXPECT_EQ(reply, "next");
  EXPECT_EQ(peer.ConnectionCount(), 2u);
}

TEST_F(ExchangeTest, BytesThatComeBetweenTwoExchangesReachNeither) {
  const ScriptedPeer& peer = Serve({First([](Peer& connection) {
    connection.Send(BuildReply("hello"));
    connection.Pause(20ms);
    connection.Send(BuildReply("stray"));
  })});
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "hello");
  WaitForPeer();
  ExpectNextIsAnswered();
  EXPECT_EQ(peer.ConnectionCount(), 1u);
}

TEST_F(ExchangeTest, AFrameThatIsOnlyPartlyWrittenFailsAndCannotGarbleTheNext) {
  const QByteArray tooMuch(64 << 20, 'x');  // more than the kernel's buffers take
  const auto hold = [](Peer& peer) { peer.HoldUntilPeerStops(); };
  const ScriptedPeer& peer = Serve({hold, hold, AnswerWith("next")});
  EXPECT_EQ(Tell(tooMuch), -2);
  EXPECT_LT(observed.took, 60s);
  EXPECT_EQ(observed.err, "");

  // Time enough for a busy machine to write a part: otherwise the connection lasts.
  constexpr std::int16_t enough = 10;
  EXPECT_EQ(Ask(enough, tooMuch), -2);
  EXPECT_EQ(reply, "untouched");
  EXPECT_GE(observed.took, enough * link.second);

  ExpectNextIsAnswered();
  EXPECT_EQ(peer.WaitForFrames(1), std::vector{Hex("0000000c0100000000") + "ask"});
}

TEST_F(ExchangeTest, APeerThatGoesBehindItsReplyIsFoundOutAndTheNextOneIsFoundOnAnotherPort) {
  {
    const ScriptedPeer first(
        {First(Sends(BuildReply("hello"), &Peer::Close)), [](Peer& peer) { peer.ReadFrame(); }});
    discovery.ServeAt(first.Port());
    EXPECT_EQ(Ask(), 0);
    EXPECT_EQ(reply, "hello");
    EXPECT_EQ(observed.err, "");
    DropServerConnection(link);
    EXPECT_EQ(Tell(), 0);
    EXPECT_LT(observed.took, 60s) << "it waits for no reply";
    WaitForPeer();
  }
  EXPECT_EQ(Tell(), -2);
  EXPECT_EQ(observed.err, kLostText);
  const ScriptedPeer second({AnswerWith("next")});
  discovery.ServeAt(second.Port());
  ExpectNextIsAnswered();
}

TEST_F(ExchangeTest, WithoutAConnectionOrTimeNothingIsSent) {
  EXPECT_EQ(Ask(), -1);
  EXPECT_EQ(reply, "untouched");
  EXPECT_EQ(observed.out + observed.err, "");
  const ScriptedPeer& peer = Serve({AnswerWith("next")});
  EXPECT_EQ(Ask(0), -2);
  EXPECT_EQ(Ask(-5), -2);
  ExpectNextIsAnswered();
  EXPECT_EQ(peer.Frames().size(), 1u);
}

// A resolver that takes longer than the request's whole time-out.
class SlowDiscovery : public FakeServiceDiscovery {
 public:
  ResolvedService Resolve(const NetService& service, std::chrono::milliseconds limit) override {
    poll(nullptr, 0, 300);
    return FakeServiceDiscovery::Resolve(service, limit);
  }
};

TEST_F(ExchangeTest, DeadlinesCountAnewAfterAConnect) {
  const ScriptedPeer peer({AnswerWith("hello")});
  SlowDiscovery slow;
  slow.ServeAt(peer.Port());
  ServerLink late(slow);
  late.second = 120ms;
  (void)Observe([&] { return SendRequest(late, RequestKind::FetchLimits, {}, 2, true, &reply); });
  EXPECT_EQ(reply, "hello");
}

}  // namespace
}  // namespace vardell
