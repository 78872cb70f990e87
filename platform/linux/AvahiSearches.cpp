#include "platform/linux/AvahiSearches.h"

#include <algorithm>

#include "Common Sources/Caps.h"
#include "platform/linux/AvahiDiscovery.h"

namespace vardell {

namespace {

bool IsSame(const NetService& a, const NetService& b) {
  return a.name == b.name && a.type == b.type && a.domain == b.domain &&
         a.interfaceIndex == b.interfaceIndex;
}

void Note(AvahiSearch& search, AvahiBrowserEvent event, const NetService& service) {
  if (event == AVAHI_BROWSER_NEW) search.Add(service);
  if (event == AVAHI_BROWSER_REMOVE) search.Remove(service);
}

void DomainBrowserEvent(AvahiDomainBrowser*, AvahiIfIndex, AvahiProtocol, AvahiBrowserEvent event,
                        const char* domain, AvahiLookupResultFlags, void* search) {
  if (!domain) return;
  NetService service;
  service.domain = QString::fromUtf8(domain);
  Note(*static_cast<AvahiSearch*>(search), event, service);
}

void ServiceBrowserEvent(AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol,
                         AvahiBrowserEvent event, const char* name, const char* type,
                         const char* domain, AvahiLookupResultFlags flags, void* search) {
  if (!name || !type || !domain) return;
  NetService service;
  service.name = QString::fromUtf8(name);
  service.type = QString::fromUtf8(type);
  service.domain = QString::fromUtf8(domain);
  service.isLocal = flags & AVAHI_LOOKUP_RESULT_LOCAL;
  service.interfaceIndex = interface;
  Note(*static_cast<AvahiSearch*>(search), event, service);
}

bool StartDomainBrowser(AvahiSession& session, AvahiSearch& search) {
  // The domain browser leaves out the domain that the daemon itself publishes in.
  if (const char* own = avahi_client_get_domain_name(session.Client())) {
    NetService service;
    service.domain = QString::fromUtf8(own);
    search.Add(service);
  }
  return avahi_domain_browser_new(session.Client(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, nullptr,
                                  AVAHI_DOMAIN_BROWSER_BROWSE, AvahiLookupFlags{},
                                  DomainBrowserEvent, &search) != nullptr;
}

bool Start(AvahiSession& session, AvahiSearch& search) {
  if (search.IsForDomains()) return StartDomainBrowser(session, search);
  return avahi_service_browser_new(session.Client(), AVAHI_IF_UNSPEC, AVAHI_PROTO_INET,
                                   search.type.toUtf8().constData(),
                                   search.domain.toUtf8().constData(), AvahiLookupFlags{},
                                   ServiceBrowserEvent, &search) != nullptr;
}

}  // namespace

void AvahiSearch::Add(const NetService& service) {
  if (!live || known.size() >= kMaxFoundServices || undelivered.size() >= kMaxFoundServices) return;
  const bool isKnown = std::any_of(known.begin(), known.end(),
                                   [&](const NetService& one) { return IsSame(one, service); });
  if (isKnown && !IsForDomains()) return;
  known.push_back(service);
  if (!isKnown) undelivered.push_back({IsForDomains() ? kNetServiceFlagIsDomain : 0u, service});
}

void AvahiSearch::Remove(const NetService& service) {
  const auto same = [&](const NetService& one) { return IsSame(one, service); };
  const auto it = std::find_if(known.begin(), known.end(), same);
  if (!live || it == known.end()) return;
  const NetService gone = *it;
  known.erase(it);
  if (std::any_of(known.begin(), known.end(), same)) return;
  const std::uint32_t kind = IsForDomains() ? kNetServiceFlagIsDomain : 0u;
  undelivered.push_back({kind | kNetServiceFlagRemove, gone});
}

void AvahiSearch::RemoveAll() {
  while (!known.empty()) {
    const NetService last = known.back();
    Remove(last);
  }
}

bool AvahiSearches::Begin(std::shared_ptr<AvahiSearch> search) {
  CheckConnection();
  const bool ready =
      session_ ? IsAvahiAnswering(kDaemonAnswerLimit) : Reconnect(kDaemonAnswerLimit);
  if (!ready || !session_) return false;
  searches_.push_back(search);
  if (Start(*session_, *search)) return true;
  End(*search);
  return false;
}

void AvahiSearches::End(AvahiSearch& search) {
  search.live = false;
  search.found = nullptr;
  search.known.clear();
  search.undelivered.clear();
  const bool anyLive =
      std::any_of(searches_.begin(), searches_.end(), [](const auto& one) { return one->live; });
  if (anyLive) return;
  session_.reset();
  searches_.clear();
}

bool AvahiSearches::Reconnect(std::chrono::milliseconds limit) {
  int error = 0;
  if (!IsAvahiAnswering(limit)) return false;
  session_ = AvahiSession::Open(error);
  if (!session_) return false;
  for (const std::shared_ptr<AvahiSearch>& search : searches_) (void)Start(*session_, *search);
  return true;
}

void AvahiSearches::CheckConnection() {
  if (!session_ || session_->Error() == 0) return;
  session_.reset();
  std::erase_if(searches_, [](const auto& search) { return !search->live; });
  for (const std::shared_ptr<AvahiSearch>& search : searches_) search->RemoveAll();
}

bool AvahiSearches::DeliverOne() {
  const auto it = std::find_if(searches_.begin(), searches_.end(),
                               [](const auto& search) { return !search->undelivered.empty(); });
  if (it == searches_.end()) return false;
  const std::shared_ptr<AvahiSearch> search = *it;
  const AvahiSearch::Event event = search->undelivered.front();
  search->undelivered.pop_front();
  const AvahiSearch::Handler found = search->found;  // a copy: it may destroy its own browser
  if (found) found(event.flags, event.service);
  return true;
}

}  // namespace vardell
