#include "link/VardellLoader.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <tuple>

#include "link/PinnedServer.h"
#include "link/Requests.h"
#include "tests/link/LinkFixture.h"

namespace vardell {
namespace {

using namespace test;
using Milliseconds = std::chrono::milliseconds;
using namespace Qt::StringLiterals;

const QString kLocalDomain = u"local"_s;
const QString kType = u"_vardell5._tcp"_s;
const std::string kAddress = "Address 0 is: 1.0.0.127\n";

NetService Service(const char* name, bool isLocal = false) {
  return {
      .name = QString::fromUtf8(name), .type = kType, .domain = kLocalDomain, .isLocal = isLocal};
}

class LoaderTest : public LinkTest {
 protected:
  LoaderTest() { link.second = 1s; }  // of the fake's clock, which does not wait

  std::int32_t ConnectAgain() {
    DropServerConnection(link);
    discovery.runs.clear();
    discovery.resolved.clear();
    return Connect();
  }
  void ResolvesTo(const std::vector<QByteArray>& addresses) {
    discovery.ServeAt(peer.Port());
    discovery.answers.begin()->second.addresses = addresses;
  }

  ScriptedPeer peer{{StaySilent}};
};

TEST_F(LoaderTest, AnExistingPairIsEnoughEvenWhenItHasFailed) {
  discovery.ServeAt(peer.Port());
  ASSERT_EQ(ConnectAgain(), 0);
  link.shared->Close();
  const std::size_t searches = discovery.searches.size();
  EXPECT_EQ(ConnectToServer(link), 0);
  EXPECT_EQ(discovery.searches.size(), searches);
  EXPECT_EQ(link.shared->ReadStatus(), StreamStatus::Closed);
}

TEST_F(LoaderTest, ANetworkWithoutAServerIsSearchedForThreeSeconds) {
  discovery.AddDomain(kLocalDomain);
  EXPECT_EQ(ConnectAgain(), -1);
  EXPECT_EQ(discovery.runs, std::vector<Milliseconds>{3s});
  EXPECT_EQ(observed.out + observed.err, "");
  EXPECT_EQ(discovery.liveBrowsers, 0);
  EXPECT_TRUE(link.serviceBrowsers.empty());
  EXPECT_FALSE(link.domainBrowser);

  discovery.daemonRuns = false;
  EXPECT_EQ(ConnectAgain(), -1);
  EXPECT_TRUE(discovery.runs.empty());
}

TEST_F(LoaderTest, WhichOfSeveralServicesIsChosen) {
  const struct {
    const char* behaviour;
    std::vector<std::pair<const char*, Milliseconds>> finds;  // "mine" is of this machine
    bool waits;                                               // for 0.2 s more
    std::vector<const char*> said;                            // the last one is chosen
  } rows[] = {
      {"the first one wins", {{"a", 100ms}, {"b", 150ms}}, true, {"a"}},
      {"one of this machine that follows within 0.2 s is preferred",
       {{"a", 100ms}, {"b", 150ms}, {"mine", 290ms}},
       true,
       {"a", "mine"}},
      {"one that follows later is too late", {{"a", 100ms}, {"mine", 310ms}}, true, {"a"}},
      {"one that comes first is chosen at once", {{"mine", 0ms}, {"a", 0ms}}, false, {"mine"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.behaviour);
    FakeServiceDiscovery network;
    ServerLink here(network);
    network.AddDomain(kLocalDomain);
    for (const auto& [name, at] : row.finds) {
      network.AddService(Service(name, name == std::string("mine")), at);
      network.answers[QString::fromUtf8(name)] = {
          0, {}, {SocketAddressV4("127.0.0.1", peer.Port())}};
    }
    std::string said;
    for (const char* name : row.said)
      said += std::string("Found service at host: ") + name + ".local\n";
    EXPECT_EQ(Observe([&] { return ConnectToServer(here); }), 0);
    std::vector<Milliseconds> runs{3s};
    if (row.waits) runs.push_back(200ms);
    EXPECT_EQ(network.runs, runs);
    ASSERT_EQ(network.resolved.size(), 1u);
    EXPECT_EQ(network.resolved[0].first.name, QString::fromUtf8(row.said.back()));
    EXPECT_EQ(network.resolved[0].second, 5s);
    EXPECT_EQ(observed.out, said + kAddress);
    EXPECT_EQ(network.liveBrowsers, 0);
  }
}

TEST_F(LoaderTest, WhoDidNotAnswerWhenLastAskedComesAfterAllOthers) {
  const ScriptedPeer silent({StaySilent});
  const ScriptedPeer answering({AnswerWith("<plist><dict/></plist>")});
  const auto ends = [&](const char* name, std::uint16_t port) {
    discovery.answers[QString::fromUtf8(name)] = {0, {}, {SocketAddressV4("127.0.0.1", port)}};
  };
  ends("mine", silent.Port());
  ends("refuses", ClosedPort());
  discovery.AddDomain(kLocalDomain);
  for (const char* name : {"mine", "refuses", "without an address", "answers"})
    discovery.AddService(Service(name, name == std::string("mine")));
  link.second = 300ms;
  const auto ask = [&] {
    DropServerConnection(link);
    discovery.resolved.clear();
    (void)Observe([&] { return CopyLimitsDictionary(link, u"bob"_s, kType); });
    QStringList asked;
    for (const auto& [service, limit] : discovery.resolved) asked << service.name;
    return asked.join(u", "_s);
  };
  EXPECT_EQ(ask(), u"mine"_s);
  ends("answers", answering.Port());
  EXPECT_EQ(ask(), u"refuses, without an address"_s);
  EXPECT_EQ(ask(), u"answers"_s);
  discovery.answers.erase(u"answers"_s);
  ends("mine", answering.Port());
  EXPECT_EQ(ask(), u"answers, mine"_s) << "of those that failed, the longest ago";
  EXPECT_EQ(ask(), u"mine"_s) << "as before it failed";
}

TEST_F(LoaderTest, ServicesAreSearchedForInEachDomainUntilItGoes) {
  constexpr std::uint32_t kGone = kNetServiceFlagIsDomain | kNetServiceFlagRemove;
  const auto there = [](const char* name) {
    NetService service = Service(name);
    service.domain = u"example.org"_s;
    return service;
  };
  discovery.ServeAt(peer.Port(), u"there"_s);
  discovery.Withdraw();
  discovery.AddDomain(kLocalDomain);
  discovery.AddDomain(u"example.org"_s, 10ms);
  discovery.AddDomain(u"unknown.example"_s, 15ms, kGone);
  discovery.AddDomain(kLocalDomain, 20ms, kGone);
  discovery.AddService(Service("gone with its domain"), 30ms);
  discovery.AddService(there("removed"), 40ms, kNetServiceFlagRemove);
  discovery.AddService(there("there"), 50ms);
  EXPECT_EQ(ConnectAgain(), 0);
  ASSERT_EQ(discovery.searches.size(), 3u);
  EXPECT_EQ(discovery.searches[1].domain, kLocalDomain);
  EXPECT_EQ(discovery.searches[1].type, kType);
  EXPECT_EQ(discovery.searches[2].domain, u"example.org"_s);
  EXPECT_EQ(observed.out, "Found service at host: there.example.org\n" + kAddress);
}

TEST_F(LoaderTest, ARememberedServiceIsResolvedAgainWhenABrowseFindsNothing) {
  discovery.ServeAt(peer.Port(), u"old"_s);
  ASSERT_EQ(ConnectAgain(), 0);
  discovery.Withdraw();
  EXPECT_EQ(ConnectAgain(), 0);
  EXPECT_EQ(discovery.runs, std::vector<Milliseconds>{3s});
  EXPECT_EQ(discovery.resolved.size(), 1u);

  discovery.daemonRuns = false;
  EXPECT_EQ(ConnectAgain(), 0);

  discovery.answers.clear();
  EXPECT_EQ(ConnectAgain(), -1);
  EXPECT_EQ(observed.out, "CFNetServiceResolve failed (err -5).\n");
  EXPECT_FALSE(link.shared);
}

TEST_F(LoaderTest, NamesThatCannotBePrintedAreSaidToBeSuch) {
  const QString names[] = {QString(QChar(0xD800)), QString(4096, QLatin1Char('x')), u"two\nlines"_s,
                           u"\x1b[2J"_s};
  for (const QString& name : names) {
    discovery.ServeAt(peer.Port(), name);
    EXPECT_EQ(ConnectAgain(), 0);
    EXPECT_EQ(observed.out, "Found service with unprintable characters in name\n" + kAddress);
  }
  discovery.ServeAt(peer.Port(), QString(4095, QLatin1Char('x')));
  EXPECT_EQ(ConnectAgain(), 0);
  EXPECT_EQ(observed.out.substr(0, 23), "Found service at host: ");
}

TEST_F(LoaderTest, TheFirstAddressIsUsedAndIPv4OnesAreLoggedLastOctetFirst) {
  ResolvesTo({SocketAddressV4("127.0.0.1", peer.Port()), SocketAddressV6("::1", 1),
              SocketAddressV4("10.0.1.2", 1)});
  EXPECT_EQ(ConnectAgain(), 0);
  EXPECT_EQ(observed.out,
            "Found service at host: Test Server.local\n" + kAddress + "Address 2 is: 2.1.0.10\n");
}

// --- Pairs that do not come about.

TEST_F(LoaderTest, ARefusedConnectionFailsAtOnce) {
  discovery.ServeAt(ClosedPort());
  link.second = 20s;
  EXPECT_EQ(ConnectAgain(), -4);
  EXPECT_LT(observed.took, link.second);
  const std::string failed = "Resolving streams failed err -4, wStream=";
  EXPECT_NE(observed.out.find(failed), std::string::npos) << observed.out;
  EXPECT_EQ(observed.out.find(failed + "0"), std::string::npos) << "there was a pair";
  EXPECT_FALSE(link.shared);
}

TEST_F(LoaderTest, AServiceWithoutAnAddressGivesNoPair) {
  for (const std::vector<QByteArray>& addresses : {std::vector<QByteArray>{}, {Hex("02")}}) {
    ResolvesTo(addresses);
    EXPECT_EQ(ConnectAgain(), -3);
    EXPECT_NE(observed.out.find("err -3, wStream=0, rStream=0\n"), std::string::npos);
  }
}

TEST_F(LoaderTest, AServerThatDoesNotPickUpIsGivenUpAfterFiveSeconds) {
  // Its queue is full: the kernel drops whoever knocks.
  const QByteArray any = SocketAddressV4("127.0.0.1", 0);
  sockaddr_in address{};
  socklen_t size = sizeof address;
  std::array<int, 5> sockets;
  for (int& one : sockets) one = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  bind(sockets[0], reinterpret_cast<const sockaddr*>(any.constData()), size);
  listen(sockets[0], 0);
  getsockname(sockets[0], reinterpret_cast<sockaddr*>(&address), &size);
  for (std::size_t i = 1; i < sockets.size(); ++i)
    connect(sockets[i], reinterpret_cast<const sockaddr*>(&address), size);

  discovery.ServeAt(ntohs(address.sin_port));
  link.second = 60ms;
  EXPECT_EQ(ConnectAgain(), -4);
  EXPECT_GE(observed.took, 5 * link.second);
  EXPECT_FALSE(link.shared);
  for (const int descriptor : sockets) close(descriptor);
}

// --- A Server that an administrator named.

TEST(PinnedServer, IsAHostAndAPort) {
  const std::tuple<const char*, const char*, int> rows[] = {
      {"server.example:49307", "server.example", 49307},
      {" 192.0.2.1:1 ", "192.0.2.1", 1},
      {"[2001:db8::1]:65535", "2001:db8::1", 65535},
      {"[server]:5", "server", 5},
  };
  for (const auto& [text, host, port] : rows) {
    const std::optional<HostAndPort> parsed = ParseHostAndPort(QString::fromUtf8(text));
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(parsed->host, QLatin1String(host));
    EXPECT_EQ(parsed->port, port);
  }
  for (const char* text :
       {"", "server", ":80", "[]:80", "server:", "server:0", "server:65536", "server:-1",
        "server:+1", "server:8x", "a b:80", "sérver:80", "[::1:80", "2001:db8::1:80"})
    EXPECT_FALSE(ParseHostAndPort(QString::fromUtf8(text))) << text;
}

TEST(PinnedServer, AddressesAreNotLookedUpAnywhere) {
  std::vector<QByteArray> addresses;
  EXPECT_EQ(LookUpHost({u"LocalHost"_s, 80}, &addresses), 0);
  EXPECT_EQ(addresses, std::vector<QByteArray>{SocketAddressV4("127.0.0.1", 80)});
  EXPECT_EQ(LookUpHost({u"::1"_s, 80}, &addresses), 0);
  EXPECT_EQ(addresses, std::vector<QByteArray>{SocketAddressV6("::1", 80)});
  EXPECT_NE(LookUpHost({u"no..name"_s, 80}, &addresses), 0);
  EXPECT_EQ(addresses.size(), 1u);
}

TEST_F(LoaderTest, APinnedServerIsNotSearchedFor) {
  link.pinnedServer = [&] { return u"127.0.0.1:%1"_s.arg(peer.Port()); };
  EXPECT_EQ(ConnectAgain(), 0);
  EXPECT_TRUE(discovery.searches.empty());
  EXPECT_EQ(observed.out, kAddress);

  link.pinnedServer = [] { return u"no..name:80"_s; };
  EXPECT_EQ(ConnectAgain(), -1);
  EXPECT_EQ(observed.out.substr(0, 32), "CFNetServiceResolve failed (err ");

  // What is no pin counts as absent.
  discovery.ServeAt(peer.Port());
  link.pinnedServer = [] { return u"somewhere"_s; };
  EXPECT_EQ(ConnectAgain(), 0);
  EXPECT_EQ(observed.err,
            "VARDELL ERROR: The preference \"Server\" must be host:port, not \"somewhere\"; "
            "looking for a Server on the network instead\n");
  link.pinnedServer = [] { return QString(); };
  EXPECT_EQ(ConnectAgain(), 0);
  EXPECT_EQ(observed.err, "");
}

// --- The pair to this machine's kill listener.

TEST_F(LoaderTest, AHealthyLocalPairIsReplacedAndABrokenOneHandedOut) {
  link.killPort = peer.Port();
  std::shared_ptr<StreamPair> first, second, third;
  ASSERT_EQ(OpenLocalServerStreams(link, &first), 0);
  first->Wait(false, true, StreamPair::Clock::now() + 10s);
  EXPECT_TRUE(first->CanAcceptBytes());
  ASSERT_EQ(OpenLocalServerStreams(link, &second), 0);
  EXPECT_NE(first, second);
  second->Close();
  ASSERT_EQ(OpenLocalServerStreams(link, &third), 0);
  EXPECT_EQ(second, third);
}

TEST(Waiting, IsForOneReadableDescriptor) {
  for (const int none : {-1, FD_SETSIZE, 1 << 20})
    EXPECT_EQ(WaitForReadable(none, timeval{0, 0}), -1);
}

TEST(Callbacks, ACallForTheWrongKindOfObjectEndsTheProcess) {
  FakeServiceDiscovery discovery;
  ServerLink link(discovery);
  EXPECT_DEATH(DomainBrowserCallBack(link, 0, kLocalDomain),
               "flags & kCFNetServiceFlagIsDomain\\), function DomainBrowserCallBack, file Common "
               "Sources/VardellLoader, line 579");
  EXPECT_DEATH(ServiceBrowserCallBack(link, kLocalDomain, kNetServiceFlagIsDomain, Service("a")),
               "!\\(flags & kCFNetServiceFlagIsDomain\\)\\), function ServiceBrowserCallBack, file "
               "Common Sources/VardellLoader, line 550");
}

}  // namespace
}  // namespace vardell
