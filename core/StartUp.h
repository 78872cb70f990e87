// From the start of the process to its event loop. Main thread only.
#pragma once

#include <cstdint>
#include <functional>

#include "core/Agent.h"

namespace vardell {

// The event loop as start-up uses it: runs until it is told to quit; may be run again afterwards.
struct EventLoop {
  std::function<int()> run;
  std::function<void()> quit;
};

// The agent's whole life: start-up, then the event loop. The result is the exit status. Connecting
// blocks for up to a minute before the first event is handled.
int RunAgent(Agent& agent, const EventLoop& loop);

// Tries for 60 seconds; the last result of ConnectToServer.
std::int32_t ConnectAtStartUp(Agent& agent);

}  // namespace vardell
