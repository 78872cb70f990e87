#include "link/RequestExchange.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>

#include "Common Sources/Caps.h"
#include "link/MessageEncoding.h"
#include "tests/link/LinkFixture.h"

namespace vardell {
namespace {

using namespace test;

constexpr std::int16_t kQuick = 2;         // seconds: 200 ms here
constexpr std::int16_t kUnreached = 1200;  // two minutes here: what ends sooner did not wait for it

class ExchangeTest : public LinkTest {
 protected:
  std::int32_t Ask(std::int16_t seconds = kUnreached) {
    reply = "untouched";
    std::int32_t result = 99;
    observed = Observe([&] {
      result = SendRequest(link, RequestKind::FetchLimits, "ask", seconds, true, &reply);
    });
    return result;
  }
  std::int32_t Tell(const QByteArray& payload = "tell", std::int16_t seconds = kUnreached) {
    std::int32_t result = 99;
    observed = Observe([&] {
      result = SendRequest(link, RequestKind::CreditReport, payload, seconds, false, nullptr);
    });
    return result;
  }

  QByteArray reply;
  Observed observed;
};

struct Misbehaviour {
  const char* behaviour;
  ScriptedPeer::Script
      script;  // run after the request has come; the connection is well-behaved after
  QByteArray reply;
  bool waits;  // for the deadline
  const char* err;
};

std::vector<Misbehaviour> Misbehaviours() {
  const QByteArray hello = BuildReply("hello");
  const QByteArray chunk = QByteArray(60, 'c');
  return {
      {"answers", [=](auto& peer) { peer.Send(hello); }, "hello", false, ""},
      {"answers in many chunks", [](auto& peer) { peer.Send(BuildReply(QByteArray(3000, 'x'))); },
       QByteArray(3000, 'x'), false, ""},
      {"answers with just one chunk", [=](auto& peer) { peer.Send(BuildReply(chunk)); }, chunk,
       false, ""},
      {"answers one byte at a time", [=](auto& peer) { peer.SendByteByByte(hello); }, "hello",
       false, ""},
      {"closes before the reply", [](auto& peer) { peer.Close(); }, "", false, kLostText},
      {"closes within the length",
       [](auto& peer) {
         peer.Send(Hex("0000"));
         peer.Close();
       },
       Hex("0000"), false, kLostText},
      {"closes within the body",
       [=](auto& peer) {
         peer.Send(hello.chopped(3));
         peer.Close();
       },
       "he", false, kLostText},
      {"closes after the reply",
       [=](auto& peer) {
         peer.Send(hello);
         peer.Close();
       },
       "hello", false, ""},
      {"resets", [](auto& peer) { peer.Reset(); }, "", false, kLostText},
      {"sends a length of 0", [](auto& peer) { peer.Send(Hex("00000000")); }, "", true, ""},
      {"sends more than it announced", [=](auto& peer) { peer.Send(hello + "abc"); }, "helloabc",
       true, ""},
      {"sends less than it announced", [=](auto& peer) { peer.Send(hello.chopped(1)); }, "hell",
       true, ""},
      {"sends nothing", [](auto&) {}, "", true, ""},
      {"never reads again", [](auto& peer) { peer.HoldUntilPeerStops(); }, "", true, ""},
  };
}

TEST_F(ExchangeTest, WhateverThePeerDoesTheResultIsClearAndTheNextRequestWorks) {
  for (const Misbehaviour& row : Misbehaviours()) {
    SCOPED_TRACE(row.behaviour);
    DropServerConnection(link);
    ScriptedPeer peer({[&](PeerConnection& connection) {
                         connection.ReadFrame();
                         row.script(connection);
                         AnswerWith("next")(connection);
                       },
                       AnswerWith("next")});
    discovery.ServeAt(peer.Port());
    EXPECT_EQ(Ask(row.waits ? kQuick : kUnreached), 0);
    EXPECT_EQ(reply, row.reply);
    EXPECT_EQ(observed.err, row.err);
    if (row.waits) {
      EXPECT_GE(observed.took, kQuick * link.second);
    }
    EXPECT_LT(observed.took, 60s);

    // A peer that has closed behind its reply is found out by the next request, which fails.
    if (link.shared && row.behaviour == std::string("closes after the reply")) {
      WaitForPeer();
      EXPECT_EQ(Ask(), -2);
      EXPECT_EQ(observed.err, kLostText);
      EXPECT_EQ(reply, "untouched");
    }
    EXPECT_EQ(Ask(), 0);
    EXPECT_EQ(reply, "next");
    EXPECT_EQ(observed.err, "");
  }
}

std::uint64_t PeakAddressSpaceKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmPeak:", 0) == 0) return std::stoull(line.substr(7));
  return 0;
}

TEST_F(ExchangeTest, AFloodBehindAHugeLengthIsKeptUpToTheCapOnly) {
  ScriptedPeer peer({[](PeerConnection& connection) {
                       connection.ReadFrame();
                       connection.Flood(0x7fffffff);
                     },
                     AnswerWith("next")});
  discovery.ServeAt(peer.Port());
  link.second = 500ms;
  const std::uint64_t peakBefore = PeakAddressSpaceKiB();
  EXPECT_EQ(Ask(kQuick), 0);
  EXPECT_GE(observed.took, kQuick * link.second);
  EXPECT_EQ(reply.size(), qsizetype(kMaxReplyBytes - kReplyHeaderBytes));
  EXPECT_LE(reply.capacity(), qsizetype(4 * kMaxReplyBytes));
  EXPECT_LT(PeakAddressSpaceKiB() - peakBefore, 1u << 20);
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "next");
}

TEST_F(ExchangeTest, AFloodBehindACompleteReplyEndsTheConnectionNotTheAgent) {
  ScriptedPeer peer({[](PeerConnection& connection) {
                       connection.ReadFrame();
                       connection.Send(BuildReply(QByteArray(60, 'c')));
                       connection.Flood(0);
                     },
                     AnswerWith("next")});
  discovery.ServeAt(peer.Port());
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, QByteArray(60, 'c'));
  // Found while the first reply was tidied up, before the second request or at its deadline.
  int requests = 1;
  for (; reply != "next" && requests < 4; ++requests) (void)Ask(kQuick);
  EXPECT_EQ(reply, "next");
  EXPECT_EQ(peer.ConnectionCount(), 2u);
}

TEST_F(ExchangeTest, BytesThatComeBetweenTwoExchangesReachNeither) {
  ScriptedPeer peer({[](PeerConnection& connection) {
    connection.ReadFrame();
    connection.Send(BuildReply("hello"));
    connection.Pause(20ms);
    connection.Send(BuildReply("stray"));
    AnswerWith("next")(connection);
  }});
  discovery.ServeAt(peer.Port());
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "hello");
  WaitForPeer();
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "next");
  EXPECT_EQ(peer.ConnectionCount(), 1u);
}

TEST_F(ExchangeTest, AReplyThatComesAfterItsDeadlineIsNotTakenForTheNextOne) {
  const auto answerLate = [](PeerConnection& connection) {
    connection.ReadFrame();
    if (connection.ReadFrame().isEmpty()) return;
    connection.Send(BuildReply("late"));
    connection.Send(BuildReply("next"));
    StaySilent(connection);
  };
  ScriptedPeer peer({answerLate, AnswerWith("next")});
  discovery.ServeAt(peer.Port());
  EXPECT_EQ(Ask(kQuick), 0);
  EXPECT_EQ(reply, "");
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "next");
}

TEST_F(ExchangeTest, ARequestWithoutReplyReturnsAtOnce) {
  ScriptedPeer peer({StaySilent});
  discovery.ServeAt(peer.Port());
  EXPECT_EQ(Tell(), 0);
  EXPECT_LT(observed.took, 60s);
  EXPECT_EQ(peer.WaitForFrames(1).front(), Hex("0000000d0600000000") + "tell");
  EXPECT_EQ(Tell({}), 0);
  EXPECT_EQ(peer.WaitForFrames(2).back(), Hex("000000090600000000"));
}

TEST_F(ExchangeTest, AFrameThatIsOnlyPartlyWrittenFailsAndCannotGarbleTheNext) {
  const QByteArray tooMuch(64 << 20, 'x');  // more than the kernel's buffers take
  ScriptedPeer peer({[](PeerConnection& connection) { connection.HoldUntilPeerStops(); },
                     [](PeerConnection& connection) { connection.HoldUntilPeerStops(); },
                     AnswerWith("next")});
  discovery.ServeAt(peer.Port());

  EXPECT_EQ(Tell(tooMuch), -2);
  EXPECT_LT(observed.took, 60s);
  EXPECT_EQ(observed.err, "");

  std::int32_t result = 0;
  reply = "untouched";
  observed = Observe(
      [&] { result = SendRequest(link, RequestKind::FetchLimits, tooMuch, kQuick, true, &reply); });
  EXPECT_EQ(result, -2);
  EXPECT_EQ(reply, "untouched");
  EXPECT_GE(observed.took, kQuick * link.second);

  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "next");
  EXPECT_EQ(peer.WaitForFrames(1).front(), Hex("0000000c0100000000") + "ask");
}

TEST_F(ExchangeTest, APeerThatHasGoneIsFoundOutAndTheNextOneIsFoundOnAnotherPort) {
  {
    ScriptedPeer first({[](PeerConnection& connection) { connection.ReadFrame(); }});
    discovery.ServeAt(first.Port());
    EXPECT_EQ(Tell(), 0);
    WaitForPeer();
  }
  EXPECT_EQ(Tell(), -2);
  EXPECT_EQ(observed.err, kLostText);
  ScriptedPeer second({AnswerWith("back")});
  discovery.ServeAt(second.Port());
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "back");
}

TEST_F(ExchangeTest, WithoutAConnectionNothingIsSent) {
  EXPECT_EQ(Ask(), -1);
  EXPECT_EQ(reply, "untouched");
  EXPECT_EQ(observed.out + observed.err, "");
}

TEST_F(ExchangeTest, ATimeOutOfNothingSendsNothing) {
  ScriptedPeer peer({AnswerWith("next")});
  discovery.ServeAt(peer.Port());
  EXPECT_EQ(Ask(0), -2);
  EXPECT_EQ(Ask(-5), -2);
  EXPECT_EQ(Ask(), 0);
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

TEST(Deadlines, CountAnewAfterAConnect) {
  ScriptedPeer peer({AnswerWith("hello")});
  SlowDiscovery discovery;
  discovery.ServeAt(peer.Port());
  ServerLink link(discovery);
  link.second = 120ms;
  QByteArray reply;
  (void)Observe(
      [&] { EXPECT_EQ(SendRequest(link, RequestKind::FetchLimits, {}, 2, true, &reply), 0); });
  EXPECT_EQ(reply, "hello");
}

}  // namespace
}  // namespace vardell
