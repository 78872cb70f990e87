#include "platform/linux/AvahiDiscovery.h"

#include <arpa/inet.h>
#include <avahi-common/error.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/linux/AvahiSearches.h"

namespace vardell {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr int kReconnectPauseMs = 100;

class AvahiBrowser : public NetServiceBrowser {
 public:
  AvahiBrowser(std::weak_ptr<AvahiSearches> searches, std::shared_ptr<AvahiSearch> search)
      : searches_(std::move(searches)), search_(std::move(search)) {}
  ~AvahiBrowser() override {
    if (const std::shared_ptr<AvahiSearches> searches = searches_.lock()) searches->End(*search_);
  }
  AvahiBrowser(const AvahiBrowser&) = delete;
  AvahiBrowser& operator=(const AvahiBrowser&) = delete;

 private:
  std::weak_ptr<AvahiSearches> searches_;
  std::shared_ptr<AvahiSearch> search_;
};

std::unique_ptr<NetServiceBrowser> Begin(const std::shared_ptr<AvahiSearches>& searches,
                                         const std::shared_ptr<AvahiSearch>& search) {
  if (!searches->Begin(search)) return nullptr;
  return std::make_unique<AvahiBrowser>(searches, search);
}

struct Resolution {
  bool done = false;
  ResolvedService result;
};

QByteArray SocketAddress(const AvahiAddress& address, std::uint16_t port) {
  sockaddr_in socketAddress{};
  socketAddress.sin_family = AF_INET;
  socketAddress.sin_port = htons(port);
  socketAddress.sin_addr.s_addr = address.data.ipv4.address;
  return QByteArray(reinterpret_cast<const char*>(&socketAddress), sizeof socketAddress);
}

void ResolverEvent(AvahiServiceResolver* resolver, AvahiIfIndex, AvahiProtocol,
                   AvahiResolverEvent event, const char*, const char*, const char*,
                   const char* hostName, const AvahiAddress* address, std::uint16_t port,
                   AvahiStringList*, AvahiLookupResultFlags, void* userData) {
  Resolution& resolution = *static_cast<Resolution*>(userData);
  if (resolution.done) return;
  if (event == AVAHI_RESOLVER_FAILURE) {
    resolution.done = true;
    resolution.result.error =
        std::min(avahi_client_errno(avahi_service_resolver_get_client(resolver)),
                 static_cast<int>(AVAHI_ERR_FAILURE));
  } else if (address && address->proto == AVAHI_PROTO_INET) {
    resolution.done = true;
    resolution.result.targetHost = QString::fromUtf8(hostName ? hostName : "");
    resolution.result.addresses.push_back(SocketAddress(*address, port));
  }
}

ResolvedService Failed(int error) {
  ResolvedService result;
  result.error = error;
  return result;
}

// An interface that has gone since the service was seen says nothing about the service.
AvahiIfIndex InterfaceToAsk(int index) {
  char name[IF_NAMESIZE];
  return index > 0 && if_indextoname(static_cast<unsigned>(index), name) ? index : AVAHI_IF_UNSPEC;
}

}  // namespace

AvahiDiscovery::AvahiDiscovery() : searches_(std::make_shared<AvahiSearches>()) {}

AvahiDiscovery::~AvahiDiscovery() = default;

std::unique_ptr<NetServiceBrowser> AvahiDiscovery::SearchForDomains(DomainHandler found) {
  auto search = std::make_shared<AvahiSearch>();
  search->found = [found = std::move(found)](std::uint32_t flags, const NetService& service) {
    found(flags, service.domain);
  };
  return Begin(searches_, search);
}

std::unique_ptr<NetServiceBrowser> AvahiDiscovery::SearchForServices(const QString& domain,
                                                                     const QString& type,
                                                                     ServiceHandler found) {
  if (type.isEmpty()) return nullptr;
  auto search = std::make_shared<AvahiSearch>();
  search->domain = domain;
  search->type = type;
  search->found = std::move(found);
  return Begin(searches_, search);
}

void AvahiDiscovery::Run(milliseconds limit) {
  const steady_clock::time_point deadline = steady_clock::now() + limit;
  stopped_ = false;
  while (!stopped_) {
    searches_->CheckConnection();
    if (searches_->DeliverOne()) continue;
    const int left = MillisecondsUntil(deadline);
    if (left == 0) return;
    if (searches_->IsConnected()) {
      searches_->Iterate(left);
    } else if (searches_->IsEmpty() ||
               !searches_->Reconnect(std::min(kDaemonAnswerLimit, milliseconds(left)))) {
      (void)poll(nullptr, 0, std::min(MillisecondsUntil(deadline), kReconnectPauseMs));
    }
  }
}

void AvahiDiscovery::Stop() {
  stopped_ = true;
}

ResolvedService AvahiDiscovery::Resolve(const NetService& service, milliseconds limit) {
  const steady_clock::time_point deadline = steady_clock::now() + limit;
  int error = AVAHI_ERR_NO_DAEMON;
  if (!IsAvahiAnswering(std::min(kDaemonAnswerLimit, limit))) return Failed(error);
  Resolution resolution;
  const std::unique_ptr<AvahiSession> session = AvahiSession::Open(error);
  if (!session) return Failed(error);
  if (!avahi_service_resolver_new(session->Client(), InterfaceToAsk(service.interfaceIndex),
                                  AVAHI_PROTO_INET, service.name.toUtf8().constData(),
                                  service.type.toUtf8().constData(),
                                  service.domain.toUtf8().constData(), AVAHI_PROTO_INET,
                                  AvahiLookupFlags{}, ResolverEvent, &resolution))
    return Failed(avahi_client_errno(session->Client()));
  while (!resolution.done) {
    const int left = MillisecondsUntil(deadline);
    if (left == 0) return Failed(AVAHI_ERR_TIMEOUT);
    session->Iterate(left);
    if (!resolution.done && session->Error() != 0) return Failed(session->Error());
  }
  return resolution.result;
}

}  // namespace vardell
