#include "link/VardellLoader.h"

#include <sys/select.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "Common Sources/Caps.h"
#include "link/PinnedServer.h"

namespace vardell {

namespace {

constexpr int kBrowseSeconds = 3;
constexpr int kLocalServiceDivisor = 5;  // of a second
constexpr int kResolveSeconds = 5;
constexpr int kOpenPasses = 30;
constexpr int kOpenPassesPerSecond = 6;  // 10 ticks each
constexpr qsizetype kNameBufferBytes = 4096;
constexpr qsizetype kIPv4AddressBytes = 16;

constexpr std::int32_t kNoService = -1;
constexpr std::int32_t kNoPair = -3;
constexpr std::int32_t kNotOpened = -4;

void FailAssertion(const char* expression, const char* function, int line) {
  std::fflush(stdout);
  std::fprintf(stderr,
               "Assertion failed: (%s), function %s, file Common Sources/VardellLoader, line %d.\n",
               expression, function, line);
  std::abort();
}

std::optional<QByteArray> PrintableName(const QString& name) {
  if (!name.isValidUtf16()) return std::nullopt;
  for (const QChar character : name)
    if (character.category() == QChar::Other_Control) return std::nullopt;
  QByteArray bytes = name.toUtf8();
  if (bytes.size() >= kNameBufferBytes) return std::nullopt;
  return bytes;
}

bool IsSame(const NetService& one, const NetService& other) {
  return one.name == other.name && one.domain == other.domain &&
         one.interfaceIndex == other.interfaceIndex;
}

// 0: there is none better.
std::ptrdiff_t Rank(const ServerLink& link, const NetService& service) {
  const auto failed = std::find_if(link.unanswering.begin(), link.unanswering.end(),
                                   [&](const NetService& one) { return IsSame(one, service); });
  if (failed != link.unanswering.end()) return 2 + (failed - link.unanswering.begin());
  return service.isLocal ? 0 : 1;
}

void PrintFound(const NetService& service) {
  const std::optional<QByteArray> domain = PrintableName(service.domain);
  const std::optional<QByteArray> name = PrintableName(service.name);
  if (domain && name)
    std::printf("Found service at host: %s.%s\n", name->constData(), domain->constData());
  else
    std::printf("Found service with unprintable characters in name\n");
  std::fflush(stdout);
}

void Browse(ServerLink& link) {
  link.domainBrowser =
      link.discovery.SearchForDomains([&link](std::uint32_t flags, const QString& domain) {
        DomainBrowserCallBack(link, flags, domain);
      });
  if (link.domainBrowser) {
    link.discovery.Run(kBrowseSeconds * link.second);
    if (link.foundInThisBrowse && Rank(link, *link.rememberedService) > 0)
      link.discovery.Run(link.second / kLocalServiceDivisor);
  }
  link.domainBrowser.reset();
  link.serviceBrowsers.clear();
}

std::optional<HostAndPort> PinnedHost(const ServerLink& link) {
  const std::optional<QString> text = link.pinnedServer ? link.pinnedServer() : std::nullopt;
  if (!text || text->isEmpty()) return std::nullopt;
  std::optional<HostAndPort> pinned = ParseHostAndPort(*text);
  if (!pinned)
    std::fprintf(stderr,
                 "VARDELL ERROR: The preference \"Server\" must be host:port, not \"%s\"; "
                 "looking for a Server on the network instead\n",
                 text->toUtf8().constData());
  return pinned;
}

// Where to connect; absent when there is no Server or its address is not to be had.
std::optional<std::vector<QByteArray>> FindServer(ServerLink& link) {
  std::vector<QByteArray> addresses;
  int error = 0;
  link.foundInThisBrowse = false;
  if (const std::optional<HostAndPort> pinned = PinnedHost(link)) {
    error = LookUpHost(*pinned, &addresses);
  } else {
    Browse(link);
    if (!link.rememberedService) return std::nullopt;
    ResolvedService resolved =
        link.discovery.Resolve(*link.rememberedService, kResolveSeconds * link.second);
    error = resolved.error;
    addresses = std::move(resolved.addresses);
  }
  if (error == 0) return addresses;
  std::printf("CFNetServiceResolve failed (err %i).\n", error);
  std::fflush(stdout);
  return std::nullopt;
}

void PrintAddresses(const std::vector<QByteArray>& addresses) {
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    if (addresses[i].size() != kIPv4AddressBytes) continue;
    const auto octet = [&](qsizetype at) {
      return int(static_cast<unsigned char>(addresses[i][at]));
    };
    std::printf("Address %i is: %i.%i.%i.%i\n", int(i), octet(7), octet(6), octet(5), octet(4));
  }
}

// Connects, for at most the time that all passes take. After the first pass each further one would
// open again what is open, which fails: hence kNotOpened for a pair that never becomes writable.
std::int32_t OpenPair(StreamPair& pair, std::chrono::milliseconds second) {
  if (!pair.OpenRead() || !pair.OpenWrite()) return kNotOpened;
  const auto deadline = StreamPair::Clock::now() + kOpenPasses * second / kOpenPassesPerSecond;
  while (!pair.CanAcceptBytes()) {
    const StreamStatus status = pair.WriteStatus();
    if (status != StreamStatus::Opening && status != StreamStatus::Open) return kNotOpened;
    if (StreamPair::Clock::now() >= deadline) return kNotOpened;
    pair.Wait(false, true, deadline);
  }
  return 0;
}

std::int32_t OpenSharedPair(ServerLink& link, const std::vector<QByteArray>& addresses) {
  PrintAddresses(addresses);
  if (!addresses.empty()) link.shared = StreamPair::ToAddress(addresses.front());
  const std::int32_t result = link.shared ? OpenPair(*link.shared, link.second) : kNoPair;
  if (result != 0) {
    const int handle = link.shared ? link.shared->Descriptor() : 0;
    std::printf("Resolving streams failed err %i, wStream=%i, rStream=%i\n", int(result), handle,
                handle);
    DropServerConnection(link);
  }
  std::fflush(stdout);
  return result;
}

}  // namespace

std::int32_t ConnectToServer(ServerLink& link) {
  if (link.shared) return 0;
  const std::optional<std::vector<QByteArray>> addresses = FindServer(link);
  const std::int32_t result = addresses ? OpenSharedPair(link, *addresses) : kNoService;
  if (result != 0) NoteSilence(link);
  if (result == 0 && link.replyMissed) {
    link.replyMissed = false;
    link.offerAgain = true;
  }
  return result;
}

void DropServerConnection(ServerLink& link) {
  link.shared.reset();
}

void ReconnectAfterDrop(ServerLink& link) {
  std::fprintf(stderr, "VARDELL ERROR: Re-connecting to server (connection dropped)\n");
  DropServerConnection(link);
}

void NoteAnswer(ServerLink& link) {
  if (!link.rememberedService) return;
  std::erase_if(link.unanswering,
                [&](const NetService& one) { return IsSame(one, *link.rememberedService); });
}

void NoteSilence(ServerLink& link) {
  if (!link.foundInThisBrowse) return;
  NoteAnswer(link);
  if (link.unanswering.size() >= kMaxFoundServices)
    link.unanswering.erase(link.unanswering.begin());
  link.unanswering.push_back(*link.rememberedService);
}

std::int32_t OpenLocalServerStreams(ServerLink& link, std::shared_ptr<StreamPair>* out) {
  if (link.local) {
    const auto isBroken = [](StreamStatus status) {
      return status == StreamStatus::Error || status == StreamStatus::Closed;
    };
    if (isBroken(link.local->ReadStatus()) || isBroken(link.local->WriteStatus())) {
      *out = link.local;
      return 0;
    }
  }
  link.local = StreamPair::ToLocalHost(link.killPort);
  if (!link.local->OpenRead() || !link.local->OpenWrite()) return -1;
  *out = link.local;
  return 0;
}

int WaitForReadable(int descriptor, struct timeval timeout) {
  // A descriptor beyond the set would be written behind it.
  if (descriptor < 0 || descriptor >= FD_SETSIZE) return -1;
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(descriptor, &readable);
  return select(descriptor + 1, &readable, nullptr, nullptr, &timeout);
}

void DomainBrowserCallBack(ServerLink& link, std::uint32_t flags, const QString& domain) {
  if ((flags & kNetServiceFlagIsDomain) == 0)
    FailAssertion("flags & kCFNetServiceFlagIsDomain", "DomainBrowserCallBack", 579);
  if ((flags & kNetServiceFlagRemove) != 0) {
    link.serviceBrowsers.erase(domain);
    return;
  }
  std::unique_ptr<NetServiceBrowser> browser = link.discovery.SearchForServices(
      domain, QLatin1String(kServiceType),
      [&link, domain](std::uint32_t serviceFlags, const NetService& service) {
        ServiceBrowserCallBack(link, domain, serviceFlags, service);
      });
  if (browser) link.serviceBrowsers[domain] = std::move(browser);
}

void ServiceBrowserCallBack(ServerLink& link, const QString& browsedDomain, std::uint32_t flags,
                            const NetService& service) {
  if ((flags & kNetServiceFlagIsDomain) != 0)
    FailAssertion("!(flags & kCFNetServiceFlagIsDomain)", "ServiceBrowserCallBack", 550);
  if ((flags & kNetServiceFlagRemove) != 0) return;
  const std::ptrdiff_t rank = Rank(link, service);
  const bool isFirst = !link.foundInThisBrowse;
  if (!isFirst && rank >= Rank(link, *link.rememberedService)) return;
  PrintFound(service);
  link.rememberedService = service;
  link.foundInThisBrowse = true;
  // Otherwise the search goes on: a better one may still come.
  if (rank == 0) link.serviceBrowsers.erase(QString(browsedDomain));
  if (isFirst || rank == 0) link.discovery.Stop();
}

}  // namespace vardell
