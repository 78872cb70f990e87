// ServiceDiscovery through the Avahi daemon. IPv4 only.
// The daemon may be absent, go, come back or stand still at any time. A search that is under way
// then reports what it had found as removed, and starts anew when the daemon is back, within Run().
// Every call that waits for the daemon first makes sure, for at most kDaemonAnswerLimit, that it
// answers: Avahi's client library itself would wait for 25 s.
#pragma once

#include <chrono>
#include <memory>

#include "platform/ServiceDiscovery.h"

namespace vardell {

inline constexpr std::chrono::milliseconds kDaemonAnswerLimit{1000};

class AvahiSearches;

class AvahiDiscovery : public ServiceDiscovery {
 public:
  AvahiDiscovery();
  ~AvahiDiscovery() override;

  std::unique_ptr<NetServiceBrowser> SearchForDomains(DomainHandler found) override;
  std::unique_ptr<NetServiceBrowser> SearchForServices(const QString& domain, const QString& type,
                                                       ServiceHandler found) override;
  void Run(std::chrono::milliseconds limit) override;
  void Stop() override;
  ResolvedService Resolve(const NetService& service, std::chrono::milliseconds limit) override;

 private:
  std::shared_ptr<AvahiSearches> searches_;  // browsers refer to it, and may outlive the discovery
  bool stopped_ = false;
};

}  // namespace vardell
