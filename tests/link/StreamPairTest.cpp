#include "link/StreamPair.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/link/LinkFixture.h"

namespace vardell {
namespace {

using namespace test;

StreamPair::Clock::time_point Soon() {
  return StreamPair::Clock::now() + 10s;
}

std::unique_ptr<StreamPair> OpenTo(std::uint16_t port) {
  std::unique_ptr<StreamPair> pair = StreamPair::ToLocalHost(port);
  EXPECT_EQ(pair->Write("x", 1), -1) << "not open yet";
  EXPECT_TRUE(pair->OpenRead());
  EXPECT_TRUE(pair->OpenWrite());
  while (pair->WriteStatus() == StreamStatus::Opening) pair->Wait(false, true, Soon());
  return pair;
}

TEST(StreamPair, ItsEndIsKnownOnlyAfterAReadOfNothing) {
  ScriptedPeer peer({[](PeerConnection& connection) {
    connection.ReadBytes(1);
    connection.Send("x");
  }});
  const std::unique_ptr<StreamPair> pair = OpenTo(peer.Port());
  EXPECT_FALSE(pair->OpenRead() || pair->OpenWrite()) << "each half opens once";
  EXPECT_NE(fcntl(pair->Descriptor(), F_GETFD) & FD_CLOEXEC, 0);
  char bytes[8];
  EXPECT_EQ(pair->Read(bytes, 1), -1) << "nothing there yet";
  const auto until = StreamPair::Clock::now() + 30ms;
  pair->Wait(true, false, until);
  EXPECT_GE(StreamPair::Clock::now(), until);
  EXPECT_EQ(pair->Write("?", 1), 1);
  for (const qsizetype expected : {1, 0}) {
    while (!pair->HasBytesAvailable()) pair->Wait(true, false, Soon());
    EXPECT_EQ(pair->ReadStatus(), StreamStatus::Open);
    EXPECT_EQ(pair->Read(bytes, expected ? 1 : 8), expected);
  }
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::AtEnd);
  EXPECT_EQ(pair->WriteStatus(), StreamStatus::Open);
  EXPECT_FALSE(pair->HasBytesAvailable());
  pair->Close();
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::Closed);
  EXPECT_FALSE(pair->OpenRead());
}

TEST(StreamPair, WritingToAPeerThatHasGoneIsAnErrorAndNoSignal) {
  ScriptedPeer peer({[](PeerConnection&) {}});
  const std::unique_ptr<StreamPair> pair = OpenTo(peer.Port());
  ASSERT_EQ(WaitForReadable(pair->Descriptor(), {.tv_sec = 10, .tv_usec = 0}), 1);
  const auto deadline = Soon();
  while (pair->Write("x", 1) >= 0 && StreamPair::Clock::now() < deadline) {
  }
  EXPECT_EQ(pair->WriteStatus(), StreamStatus::Error);
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::Error);
}

// Without a listener the kernel sooner or later picks the wanted port as the connection's own. It
// gives ports of one parity to bind(2) and of the other to connect(2).
TEST(StreamPair, IsNeverConnectedToItself) {
  const std::uint16_t port = ClosedPort() ^ 1;
  for (int attempt = 0; attempt < 40000; ++attempt)
    ASSERT_EQ(OpenTo(port)->WriteStatus(), StreamStatus::Error) << attempt;
}

TEST(StreamPair, SpeaksIPv4AndIPv6AndNothingElse) {
  EXPECT_TRUE(StreamPair::ToAddress(SocketAddressV4("127.0.0.1", 1)));
  EXPECT_TRUE(StreamPair::ToAddress(SocketAddressV6("::1", 1)));
  for (const QByteArray& address :
       {QByteArray(), Hex("02"), SocketAddressV4("127.0.0.1", 1).chopped(1),
        SocketAddressV6("::1", 1) + 'x', Hex("01002f746d7000"), QByteArray(1000, '\2')})
    EXPECT_FALSE(StreamPair::ToAddress(address));
}

}  // namespace
}  // namespace vardell
