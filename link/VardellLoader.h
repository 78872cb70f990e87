// Finding the Server by DNS service discovery, opening the stream pair to it, and the second pair
// to the kill listener of this machine. Main thread only. ConnectToServer blocks for at most 3.2 s
// of browsing, 5 s of resolving and 5 s of opening; it waits in poll(2) and runs no Qt event loop.
// A connection that is refused fails at once.
//
// Which Server: the one that the preference "Server" names; otherwise a service that this machine
// itself publishes (waited for 0.2 s after the first find); otherwise the first that is found; and
// where none is, the one that was found last. A service that did not answer when it was last asked
// comes after all others: a machine that lost its power goes on being found for an hour.
#pragma once

#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "link/StreamPair.h"
#include "platform/ServiceDiscovery.h"

struct timeval;

namespace vardell {

inline constexpr char kServiceType[] = "_vardell5._tcp";
inline constexpr std::uint16_t kKillPort = 49308;

// The Agent's side of its connections. One per process; outlives every operation that takes it.
struct ServerLink {
  explicit ServerLink(ServiceDiscovery& serviceDiscovery) : discovery(serviceDiscovery) {}

  ServiceDiscovery& discovery;
  // The preference "Server" ("host:port", an IPv6 address in brackets), asked at each connect.
  // Absent or empty: discovery. A name instead of an address blocks for as long as the system's
  // resolver does.
  std::function<std::optional<QString>()> pinnedServer;
  std::chrono::milliseconds second{1000};  // tests shorten the network's deadlines with it
  std::uint16_t killPort = kKillPort;      // tests only

  std::shared_ptr<StreamPair> shared;  // present: the Agent counts itself connected
  std::shared_ptr<StreamPair> local;   // kill requests only
  std::optional<NetService> rememberedService;
  std::unique_ptr<NetServiceBrowser> domainBrowser;                       // during one connect
  std::map<QString, std::unique_ptr<NetServiceBrowser>> serviceBrowsers;  // by domain, likewise
  bool foundInThisBrowse = false;       // the remembered service, by the latest connect
  std::vector<NetService> unanswering;  // when last asked; the latest one last
  std::uint32_t reservedWord = 0;       // byte-swapped in place at each frame; stays zero

  // Set when a fetch got no reply; the next new connection then sets offerAgain, which whoever
  // offers all running applications once more clears.
  bool replyMissed = false;
  bool offerAgain = false;
};

// 0: connected (at once where a pair exists, even one that has failed since). -1: no service found
// or its resolution failed. -2, -3, -4: the pair never became writable, could not be created, could
// not be opened.
[[nodiscard]] std::int32_t ConnectToServer(ServerLink& link);

void DropServerConnection(ServerLink& link);

// DropServerConnection, announced on standard error.
void ReconnectAfterDrop(ServerLink& link);

// What became of asking the service that the latest connect found; of any other nothing is noted.
void NoteAnswer(ServerLink& link);
void NoteSilence(ServerLink& link);

// A pair to "localhost", port 49308. 0, with the pair in `out`, or -1. A healthy pair is replaced
// by a new connection, a broken one is handed out as it is.
[[nodiscard]] std::int32_t OpenLocalServerStreams(ServerLink& link,
                                                  std::shared_ptr<StreamPair>* out);

// What select(2) returns for the one descriptor.
int WaitForReadable(int descriptor, struct timeval timeout);

// The browse's two callbacks. A call with the wrong kind of object is a programming error and ends
// the process.
void DomainBrowserCallBack(ServerLink& link, std::uint32_t flags, const QString& domain);
void ServiceBrowserCallBack(ServerLink& link, const QString& browsedDomain, std::uint32_t flags,
                            const NetService& service);

}  // namespace vardell
