// One connection to the Avahi daemon with its own poll, and what the discovery needs of it.
#pragma once

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/simple-watch.h>

#include <chrono>
#include <memory>

namespace vardell {

// Milliseconds that are left until `deadline`, never negative, rounded up.
int MillisecondsUntil(std::chrono::steady_clock::time_point deadline);

// False when no daemon answers on the system bus within `limit`, also when one is there and has
// been stopped.
bool IsAvahiAnswering(std::chrono::milliseconds limit);

class AvahiSession {
 public:
  // Null, and a negative Avahi code in `error`, when there is no daemon. Blocks for an exchange
  // with the bus.
  static std::unique_ptr<AvahiSession> Open(int& error);

  // Ends everything that was begun on Client(), without asking the daemon.
  ~AvahiSession();
  AvahiSession(const AvahiSession&) = delete;
  AvahiSession& operator=(const AvahiSession&) = delete;

  AvahiClient* Client() { return client_; }
  // Negative once the daemon or the bus has gone; such a session is of no more use.
  int Error() const { return error_; }
  // Waits for at most `limit` for something to happen and lets Avahi's callbacks run.
  void Iterate(int limitMs);

 private:
  AvahiSession() = default;
  static void StateChanged(AvahiClient* client, AvahiClientState state, void* self);

  AvahiSimplePoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  int error_ = 0;
};

}  // namespace vardell
