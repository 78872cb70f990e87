// A link to a peer on loopback, what it prints, and how long it takes. One second of the network's
// deadlines lasts 100 ms here.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

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

// A port of 127.0.0.1 on which nobody listens.
inline std::uint16_t ClosedPort() {
  return ScriptedPeer({StaySilent}).Port();
}

class LinkTest : public testing::Test {
 protected:
  struct Observed {
    std::string out;
    std::string err;
    std::chrono::milliseconds took{0};
  };

  LinkTest() { link.second = 100ms; }

  template <typename Operation>
  auto Observe(Operation operation) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const auto began = std::chrono::steady_clock::now();
    const auto result = operation();
    const auto took = std::chrono::steady_clock::now() - began;
    observed = {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr(),
                std::chrono::duration_cast<std::chrono::milliseconds>(took)};
    return result;
  }

  // A peer that the link will find, in the place of the one before.
  ScriptedPeer& Serve(std::vector<ScriptedPeer::Script> scripts) {
    DropServerConnection(link);
    server_ = std::make_unique<ScriptedPeer>(std::move(scripts));
    discovery.ServeAt(server_->Port());
    return *server_;
  }
  std::int32_t Connect() {
    return Observe([&] { return ConnectToServer(link); });
  }
  // Until something (bytes, the end, a reset) has come from the peer.
  void WaitForPeer() {
    ASSERT_EQ(WaitForReadable(link.shared->Descriptor(), {.tv_sec = 10, .tv_usec = 0}), 1);
  }

  FakeServiceDiscovery discovery;
  ServerLink link{discovery};
  Observed observed;  // of the last operation

 private:
  std::unique_ptr<ScriptedPeer> server_;
};

}  // namespace vardell::test
