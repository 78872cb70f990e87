// The listener that agents talk to: request kinds 1, 3 and 6, and 4 and 5, as docs/protocol.md has
// them. One request is served after the other, so that a fetch that follows a report on the same
// connection shows it, on disk. A malformed payload, an unknown kind and a kill request close the
// connection, besides what FrameListener closes.
#pragma once

#include <QString>
#include <cstdint>
#include <functional>

#include "server/FrameListener.h"

namespace vardell::server {

class Household;
struct Metrics;

// Listens at once; throws as FrameListener does. `household` and `metrics` must outlive it.
FrameListener ListenForAgents(boost::asio::io_context& network, Household& household,
                              const QString& address, std::uint16_t port, LogHook log,
                              Metrics* metrics = nullptr);

}  // namespace vardell::server
