// A link to a peer on loopback, what it prints, and how long it takes. One second of the network's
// deadlines lasts 100 ms here.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>

#include "link/VardellLoader.h"
#include "tests/support/FakeServiceDiscovery.h"
#include "tests/support/ScriptedPeer.h"

namespace vardell::test {

using namespace std::chrono_literals;

inline constexpr char kLostText[] = "Vardell client: connection lost.\n";
inline constexpr char kReconnectText[] =
    "VARDELL ERROR: Re-connecting to server (connection dropped)\n";

inline QByteArray Hex(const char* text) {
  return QByteArray::fromHex(text);
}

struct Observed {
  std::string out;
  std::string err;
  std::chrono::milliseconds took{0};
};

template <typename Operation>
Observed Observe(Operation operation) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const auto began = std::chrono::steady_clock::now();
  operation();
  const auto took = std::chrono::steady_clock::now() - began;
  Observed observed;
  observed.took = std::chrono::duration_cast<std::chrono::milliseconds>(took);
  observed.out = testing::internal::GetCapturedStdout();
  observed.err = testing::internal::GetCapturedStderr();
  return observed;
}

class LinkTest : public testing::Test {
 protected:
  LinkTest() { link.second = 100ms; }

  void Connect() {
    (void)Observe([&] { ASSERT_EQ(ConnectToServer(link), 0); });
    ASSERT_TRUE(link.shared);
  }
  // Until something (bytes, the end, a reset) has come from the peer.
  void WaitForPeer() {
    ASSERT_EQ(WaitForReadable(link.shared->Descriptor(), {.tv_sec = 10, .tv_usec = 0}), 1);
  }

  FakeServiceDiscovery discovery;
  ServerLink link{discovery};
};

// A port of 127.0.0.1 on which nobody listens.
inline std::uint16_t ClosedPort() {
  return ScriptedPeer({StaySilent}).Port();
}

}  // namespace vardell::test
