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
  EXPECT_TRUE(pair->OpenRead());
  EXPECT_TRUE(pair->OpenWrite());
  while (pair->WriteStatus() == StreamStatus::Opening) pair->Wait(false, true, Soon());
  return pair;
}

TEST(StreamPair, GoesFromNotOpenToOpenAndEachHalfOpensOnce) {
  ScriptedPeer peer({StaySilent});
  const std::unique_ptr<StreamPair> pair = StreamPair::ToLocalHost(peer.Port());
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::NotOpen);
  EXPECT_EQ(pair->Write("x", 1), -1);
  EXPECT_TRUE(pair->OpenRead());
  EXPECT_FALSE(pair->OpenRead());
  EXPECT_EQ(pair->WriteStatus(), StreamStatus::NotOpen);
  EXPECT_TRUE(pair->OpenWrite());
  EXPECT_FALSE(pair->OpenWrite());
  while (pair->ReadStatus() == StreamStatus::Opening) pair->Wait(true, false, Soon());
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::Open);
  EXPECT_EQ(pair->WriteStatus(), StreamStatus::Open);
  char byte;
  EXPECT_EQ(pair->Read(&byte, 1), -1) << "nothing there yet";
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::Open);
  EXPECT_NE(fcntl(pair->Descriptor(), F_GETFD) & FD_CLOEXEC, 0);
  const auto began = StreamPair::Clock::now();
  pair->Wait(true, false, began + 30ms);
  EXPECT_GE(StreamPair::Clock::now() - began, 30ms);
  pair->Close();
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::Closed);
  EXPECT_FALSE(pair->OpenRead());
}

TEST(StreamPair, ItsEndIsKnownOnlyAfterAReadOfNothing) {
  ScriptedPeer peer({[](PeerConnection& connection) { connection.Send("x"); }});
  const std::unique_ptr<StreamPair> pair = OpenTo(peer.Port());
  char bytes[8];
  while (!pair->HasBytesAvailable()) pair->Wait(true, false, Soon());
  EXPECT_EQ(pair->Read(bytes, 1), 1);
  while (!pair->HasBytesAvailable()) pair->Wait(true, false, Soon());
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::Open);
  EXPECT_EQ(pair->Read(bytes, 8), 0);
  EXPECT_EQ(pair->ReadStatus(), StreamStatus::AtEnd);
  EXPECT_EQ(pair->WriteStatus(), StreamStatus::Open);
  EXPECT_FALSE(pair->HasBytesAvailable());
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
