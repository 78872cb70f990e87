// The searches that are under way on one connection to the Avahi daemon. The connection exists only
// while there are searches, so that nothing piles up for a reader that is not there.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "platform/ServiceDiscovery.h"
#include "platform/linux/AvahiSession.h"

namespace vardell {

struct AvahiSearch {
  using Handler = std::function<void(std::uint32_t flags, const NetService& service)>;
  struct Event {
    std::uint32_t flags = 0;
    NetService service;
  };

  // A search for domains has no type; its findings have nothing but a domain.
  bool IsForDomains() const { return type.isEmpty(); }
  void Add(const NetService& service);
  void Remove(const NetService& service);
  void RemoveAll();

  QString domain;
  QString type;
  Handler found;
  bool live = true;               // false once its browser was destroyed: it reports no more
  std::vector<NetService> known;  // what Avahi reports now, a domain once for each interface
  std::deque<Event> undelivered;
};

class AvahiSearches {
 public:
  // False when the search could not be started; it is not kept then.
  bool Begin(std::shared_ptr<AvahiSearch> search);
  // The search has been ended by its owner.
  void End(AvahiSearch& search);
  // Connects again after a loss when there is something to search for. False without a daemon.
  bool Reconnect(std::chrono::milliseconds limit);
  bool IsConnected() const { return session_ && session_->Error() == 0; }
  // Hands one event to its handler, which may begin and end searches. False when there was none.
  bool DeliverOne();
  void Iterate(int limitMs) { session_->Iterate(limitMs); }
  // Takes notice of a lost daemon: everything found is gone.
  void CheckConnection();
  bool IsEmpty() const { return searches_.empty(); }

 private:
  // Declared before the session, whose callbacks use them until it has gone. A search whose owner
  // ended it stays until the session goes: freeing it alone would have to wait for the daemon.
  std::vector<std::shared_ptr<AvahiSearch>> searches_;
  std::unique_ptr<AvahiSession> session_;
};

}  // namespace vardell
