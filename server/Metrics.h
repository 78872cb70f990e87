// What the Server counts, and the text in which GET /v1/metrics shows it (Prometheus' text format
// 0.0.4). Plain values of the network's thread, since the start. No label is the name of a user or
// an identifier: everybody may read this.
#pragma once

#include <QByteArray>
#include <array>
#include <cstddef>
#include <cstdint>

#include "server/FrameListener.h"
#include "server/SafeKill.h"

namespace vardell::server {

struct HouseholdFacts;
struct ServerStatus;

struct Metrics {
  static constexpr std::size_t kKinds = 8;
  static constexpr std::size_t kConnectionEnds = static_cast<std::size_t>(ConnectionEnd::Last) + 1;
  static constexpr std::size_t kKillResults = static_cast<std::size_t>(KillResult::Last) + 1;

  struct Connections {
    std::array<std::uint64_t, kConnectionEnds> ended{};
    void Count(ConnectionEnd end) { ++ended[static_cast<std::size_t>(end)]; }
  };

  std::array<std::uint64_t, kKinds> requests{};  // by kind; 0: of none that there is
  Connections agents;
  Connections kills;
  std::array<std::uint64_t, kKillResults> killResults{};
  std::uint64_t killsWithoutPid = 0;              // what was asked for was no pid
  std::array<std::uint64_t, 6> controlAnswers{};  // by the first digit of their status

  void CountRequest(std::uint8_t kind) { ++requests[kind < kKinds ? kind : 0]; }
  void CountKill(KillResult result) { ++killResults[static_cast<std::size_t>(result)]; }
  void CountAnswer(int status) { ++controlAnswers[static_cast<std::size_t>(status / 100) % 6]; }
};

inline constexpr char kMetricsContentType[] = "text/plain; version=0.0.4; charset=utf-8";

QByteArray MetricsText(const Metrics& metrics, const ServerStatus& status,
                       const HouseholdFacts& household);

}  // namespace vardell::server
