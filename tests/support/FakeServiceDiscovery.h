// A network whose domains and services a test lists beforehand. Time in it is virtual: Run() never
// sleeps, it moves the fake's clock on and delivers what is due.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <QByteArray>
#include <QString>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "platform/ServiceDiscovery.h"

namespace vardell {

inline QByteArray SocketAddressV4(const char* host, std::uint16_t port) {
  sockaddr_in address{AF_INET, htons(port), {}, {}};
  inet_pton(AF_INET, host, &address.sin_addr);
  return QByteArray(reinterpret_cast<const char*>(&address), sizeof address);
}

inline QByteArray SocketAddressV6(const char* host, std::uint16_t port) {
  sockaddr_in6 address{AF_INET6, htons(port), 0, {}, 0};
  inet_pton(AF_INET6, host, &address.sin6_addr);
  return QByteArray(reinterpret_cast<const char*>(&address), sizeof address);
}

class FakeServiceDiscovery : public ServiceDiscovery {
 public:
  using Milliseconds = std::chrono::milliseconds;

  // What the network holds. Times are of the fake's clock, which starts at 0 and moves in Run().
  bool daemonRuns = true;
  std::map<QString, ResolvedService> answers;  // by service name; absent: error -5

  void AddDomain(const QString& domain, Milliseconds at = Milliseconds(0),
                 std::uint32_t flags = kNetServiceFlagIsDomain) {
    events_.push_back({at, flags, NetService{.name = {}, .type = {}, .domain = domain}});
  }
  void AddService(const NetService& service, Milliseconds at = Milliseconds(0),
                  std::uint32_t flags = 0) {
    events_.push_back({at, flags, service});
  }
  // A Server on this machine's loopback, found at once. Called again: it has moved.
  void ServeAt(std::uint16_t port, const QString& name = QStringLiteral("Test Server")) {
    events_.clear();
    AddDomain(QStringLiteral("local"));
    AddService({.name = name,
                .type = QStringLiteral("_vardell5._tcp"),
                .domain = QStringLiteral("local")});
    answers[name] = {0, QStringLiteral("localhost"), {SocketAddressV4("127.0.0.1", port)}};
  }
  // Nothing more to find; what was found can still be resolved.
  void Withdraw() { events_.clear(); }

  // What was asked of it.
  struct Search {
    QString domain;  // empty: a search for domains
    QString type;
  };
  std::vector<Search> searches;
  std::vector<Milliseconds> runs;
  std::vector<std::pair<NetService, Milliseconds>> resolved;
  int liveBrowsers = 0;

  std::unique_ptr<NetServiceBrowser> SearchForDomains(DomainHandler found) override {
    return Start({}, {}, [found](std::uint32_t flags, const NetService& about) {
      found(flags, about.domain);
    });
  }
  std::unique_ptr<NetServiceBrowser> SearchForServices(const QString& domain, const QString& type,
                                                       ServiceHandler found) override {
    return Start(domain, type, std::move(found));
  }

  void Run(Milliseconds limit) override {
    runs.push_back(limit);
    stopped_ = false;
    const Milliseconds end = now_ + limit;
    while (!stopped_ && DeliverNext(end)) {
    }
    if (!stopped_) now_ = end;
  }
  void Stop() override { stopped_ = true; }

  ResolvedService Resolve(const NetService& service, Milliseconds limit) override {
    resolved.emplace_back(service, limit);
    const auto answer = answers.find(service.name);
    return answer == answers.end() ? ResolvedService{-5, {}, {}} : answer->second;
  }

 private:
  struct Event {
    Milliseconds at;
    std::uint32_t flags;
    NetService about;
  };
  struct Searching {
    ServiceHandler found;
    std::multimap<Milliseconds, Event> due;
  };
  struct Browser : NetServiceBrowser {
    Browser(FakeServiceDiscovery& fake, int id) : fake_(fake), id_(id) { ++fake_.liveBrowsers; }
    ~Browser() override {
      --fake_.liveBrowsers;
      fake_.searching_.erase(id_);
    }
    FakeServiceDiscovery& fake_;
    int id_;
  };

  std::unique_ptr<NetServiceBrowser> Start(const QString& domain, const QString& type,
                                           ServiceHandler found) {
    if (!daemonRuns) return nullptr;
    searches.push_back({domain, type});
    const int id = nextId_++;
    Searching& searching = searching_[id];
    searching.found = std::move(found);
    for (const Event& event : events_)
      if (Concerns(event, searches.back())) searching.due.emplace(event.at, event);
    return std::make_unique<Browser>(*this, id);
  }

  static bool Concerns(const Event& event, const Search& search) {
    if (search.domain.isEmpty()) return (event.flags & kNetServiceFlagIsDomain) != 0;
    return (event.flags & kNetServiceFlagIsDomain) == 0 && event.about.domain == search.domain &&
           event.about.type == search.type;
  }

  // The earliest event that some search has not heard of; false when none is due by `end`.
  bool DeliverNext(Milliseconds end) {
    Searching* next = nullptr;
    for (auto& [id, one] : searching_) {
      if (one.due.empty() || one.due.begin()->first > end) continue;
      if (!next || one.due.begin()->first < next->due.begin()->first) next = &one;
    }
    if (!next) return false;
    const Event event = next->due.extract(next->due.begin()).mapped();
    const ServiceHandler found = next->found;  // survives the end of its own browser
    now_ = std::max(now_, event.at);
    found(event.flags, event.about);
    return true;
  }

  std::vector<Event> events_;
  std::map<int, Searching> searching_;
  int nextId_ = 1;
  Milliseconds now_{0};
  bool stopped_ = false;
};

}  // namespace vardell
