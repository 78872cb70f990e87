#include "link/RequestExchange.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>

#include "Common Sources/Caps.h"
#include "tests/link/LinkFixture.h"

namespace vardell {
namespace {

using namespace test;

constexpr std::int16_t kQuick = 2;         // seconds: 200 ms here
constexpr std::int16_t kUnreached = 1200;  // two minutes here: what ends sooner did not wait for it

class ExchangeTest : public LinkTest {
 protected:
  std::int32_t Ask(std::int16_t seconds = kUnreached, const QByteArray& payload = "ask") {
    reply = "untouched";
    std::int32_t result = 99;
    observed = Observe([&] {
      result = SendRequest(link, RequestKind::FetchLimits, payload, seconds, true, &reply);
    });
    return result;
  }
  std::int32_t Tell(const QByteArray& payload = "tell") {
    std::int32_t result = 99;
    observed = Observe([&] {
      result = SendRequest(link, RequestKind::CreditReport, payload, kUnreached, false, nullptr);
    });
    return result;
  }

  QByteArray reply;
  Observed observed;
};

// What the peer does once it has the request; where the connection lasts, it behaves afterwards.
ScriptedPeer::Script Sends(const QByteArray& bytes, void (PeerConnection::*then)() = nullptr) {
  return [=](PeerConnection& peer) {
    peer.Send(bytes);
    if (then) (peer.*then)();
  };
}

struct Misbehaviour {
  const char* behaviour;
  ScriptedPeer::Script script;
  QByteArray reply;
  const char* err = "";
  bool waits = false;  // for the deadline
};

std::vector<Misbehaviour> Misbehaviours() {
  using Peer = PeerConnection;
  const QByteArray hello = BuildReply("hello");
  const QByteArray chunk(60, 'c');
  const QByteArray many(3000, 'x');
  return {
      {"answers in many chunks", Sends(BuildReply(many)), many},
      {"answers with just one chunk", Sends(BuildReply(chunk)), chunk},
      {"answers one byte at a time", [=](Peer& peer) { peer.SendByteByByte(hello); }, "hello"},
      {"closes before the reply", Sends("", &Peer::Close), "", kLostText},
      {"closes within the length", Sends(Hex("0000"), &Peer::Close), Hex("0000"), kLostText},
      {"closes within the body", Sends(hello.chopped(3), &Peer::Close), "he", kLostText},
      {"closes after the reply", Sends(hello, &Peer::Close), "hello"},
      {"resets", Sends("", &Peer::Reset), "", kLostText},
      {"sends a length of 0", Sends(Hex("00000000")), "", "", true},
      {"sends more than it announced", Sends(hello + "abc"), "helloabc", "", true},
      {"sends less than it announced", Sends(hello.chopped(1)), "hell", "", true},
      {"sends nothing", Sends(""), "", "", true},
      {"never reads again", Sends("", &Peer::HoldUntilPeerStops), "", "", true},
  };
}

TEST_F(ExchangeTest, WhateverThePeerDoesTheResultIsClearAndTheNextRequestWorks) {
  for (const Misbehaviour& row : Misbehaviours()) {
    SCOPED_TRACE(row.behaviour);
    Serve({[&](PeerConnection& peer) {
             peer.ReadFrame();
             row.script(peer);
             AnswerWith("next")(peer);
           },
           AnswerWith("next")});
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
  Serve({[](PeerConnection& peer) {
           peer.ReadFrame();
           peer.Flood(0x7fffffff);
         },
         AnswerWith("next")});
  link.second = 500ms;
  const std::uint64_t peakBefore = PeakAddressSpaceKiB();
  EXPECT_EQ(Ask(kQuick), 0);
  EXPECT_GE(observed.took, kQuick * link.second);
  EXPECT_EQ(reply.size(), qsizetype(kMaxReplyBytes - kReplyHeaderBytes));
  EXPECT_LT(PeakAddressSpaceKiB() - peakBefore, 1u << 20);
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "next");
}

TEST_F(ExchangeTest, AFloodBehindACompleteReplyEndsTheConnectionNotTheAgent) {
  const ScriptedPeer& peer = Serve({[](PeerConnection& connection) {
                                      connection.ReadFrame();
                                      connection.Send(BuildReply(QByteArray(60, 'c')));
                                      connection.Flood(0);
                                    },
                                    AnswerWith("next")});
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, QByteArray(60, 'c'));
  // Found while the first reply was tidied up, before the second request or at its deadline.
  for (int requests = 1; reply != "next" && requests < 4; ++requests) (void)Ask(kQuick);
  EXPECT_EQ(reply, "next");
  EXPECT_EQ(peer.ConnectionCount(), 2u);
}

TEST_F(ExchangeTest, BytesThatComeBetweenTwoExchangesReachNeither) {
  const ScriptedPeer& peer = Serve({[](PeerConnection& connection) {
    connection.ReadFrame();
    connection.Send(BuildReply("hello"));
    connection.Pause(20ms);
    connection.Send(BuildReply("stray"));
    AnswerWith("next")(connection);
  }});
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "hello");
  WaitForPeer();
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "next");
  EXPECT_EQ(peer.ConnectionCount(), 1u);
}

TEST_F(ExchangeTest, AReplyThatComesAfterItsDeadlineIsNotTakenForTheNextOne) {
  Serve({[](PeerConnection& peer) {
           peer.ReadFrame();
           if (!peer.ReadFrame().isEmpty()) AnswerWith("late")(peer);
         },
         AnswerWith("next")});
  EXPECT_EQ(Ask(kQuick), 0);
  EXPECT_EQ(reply, "");
  EXPECT_EQ(Ask(kQuick), 0);
  EXPECT_EQ(reply, "next");
}

TEST_F(ExchangeTest, AFrameThatIsOnlyPartlyWrittenFailsAndCannotGarbleTheNext) {
  const QByteArray tooMuch(64 << 20, 'x');  // more than the kernel's buffers take
  const auto hold = [](PeerConnection& peer) { peer.HoldUntilPeerStops(); };
  const ScriptedPeer& peer = Serve({hold, hold, AnswerWith("next")});
  EXPECT_EQ(Tell(tooMuch), -2);
  EXPECT_LT(observed.took, 60s);
  EXPECT_EQ(observed.err, "");

  EXPECT_EQ(Ask(kQuick, tooMuch), -2);
  EXPECT_EQ(reply, "untouched");
  EXPECT_GE(observed.took, kQuick * link.second);

  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "next");
  EXPECT_EQ(peer.WaitForFrames(1).front(), Hex("0000000c0100000000") + "ask");
}

TEST_F(ExchangeTest, APeerThatHasGoneIsFoundOutAndTheNextOneIsFoundOnAnotherPort) {
  {
    ScriptedPeer first({[](PeerConnection& peer) { peer.ReadFrame(); }});
    discovery.ServeAt(first.Port());
    EXPECT_EQ(Tell(), 0);
    EXPECT_LT(observed.took, 60s) << "it waits for no reply";
    WaitForPeer();
  }
  EXPECT_EQ(Tell(), -2);
  EXPECT_EQ(observed.err, kLostText);
  ScriptedPeer second({AnswerWith("back")});
  discovery.ServeAt(second.Port());
  EXPECT_EQ(Ask(), 0);
  EXPECT_EQ(reply, "back");
}

TEST_F(ExchangeTest, WithoutAConnectionOrTimeNothingIsSent) {
  EXPECT_EQ(Ask(), -1);
  EXPECT_EQ(reply, "untouched");
  EXPECT_EQ(observed.out + observed.err, "");
  const ScriptedPeer& peer = Serve({AnswerWith("next")});
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
  (void)Observe([&] { (void)SendRequest(link, RequestKind::FetchLimits, {}, 2, true, &reply); });
  EXPECT_EQ(reply, "hello");
}

}  // namespace
}  // namespace vardell
