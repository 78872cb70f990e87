// DNS service discovery: domains to browse, services in a domain, the address of a service.
// Implemented by platform/linux/ (Avahi) and by a fake in tests/support/. Main thread only.
// Nothing happens between calls: callbacks come from inside Run() and from nowhere else, and no
// Qt event loop runs in it.
#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace vardell {

// Flags of a browse callback.
enum BrowseFlags : std::uint32_t {
  kNetServiceFlagIsDomain = 1,  // the callback is about a domain, not a service
  kNetServiceFlagRemove = 2,    // it has gone
};

struct NetService {
  QString name;
  QString type;
  QString domain;
  bool isLocal = false;     // published by this very machine
  int interfaceIndex = -1;  // where it was seen; -1: any
};

struct ResolvedService {
  int error = 0;  // 0, or the discovery daemon's own negative code
  QString targetHost;
  std::vector<QByteArray>
      addresses;  // socket addresses, IPv4 ones first; never empty when error is 0
};

// A search that goes on until it is destroyed.
class NetServiceBrowser {
 public:
  virtual ~NetServiceBrowser() = default;
};

class ServiceDiscovery {
 public:
  virtual ~ServiceDiscovery() = default;

  using DomainHandler = std::function<void(std::uint32_t flags, const QString& domain)>;
  using ServiceHandler = std::function<void(std::uint32_t flags, const NetService& service)>;

  // Null when the search cannot start (no discovery daemon).
  virtual std::unique_ptr<NetServiceBrowser> SearchForDomains(DomainHandler found) = 0;
  virtual std::unique_ptr<NetServiceBrowser> SearchForServices(const QString& domain,
                                                               const QString& type,
                                                               ServiceHandler found) = 0;

  // Delivers callbacks until Stop() or until the time is over. A callback may start searches and
  // destroy browsers, its own too.
  virtual void Run(std::chrono::milliseconds limit) = 0;
  virtual void Stop() = 0;

  // Blocks for at most `limit`. Independent of Run().
  virtual ResolvedService Resolve(const NetService& service, std::chrono::milliseconds limit) = 0;
};

}  // namespace vardell
