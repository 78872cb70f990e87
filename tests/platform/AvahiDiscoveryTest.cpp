// Runs against a real Avahi daemon, which tools/desktop stops, starts and freezes on demand.
#include "platform/linux/AvahiDiscovery.h"

#include <arpa/inet.h>
#include <avahi-common/error.h>
#include <gtest/gtest.h>

#include <QString>
#include <atomic>
#include <list>
#include <memory>

#include "server/Publisher.h"
#include "tests/support/AvahiDaemon.h"
#include "tests/support/Waiting.h"

namespace vardell {
namespace {

using namespace std::chrono_literals;
using test::WaitUntil;

constexpr std::uint16_t kPort = 4711;
constexpr char kType[] = "_vardell5._tcp";

// Publishes services from a thread of its own while it lives.
class Publication {
 public:
  explicit Publication(const char* name = "Household")
      : publisher_(kPort, QString::fromUtf8(name), [this](const auto& published, const QString&) {
          established_ = published.has_value();
        }) {
    EXPECT_TRUE(WaitUntil([&] { return established_.load(); })) << "cannot publish";
  }

 private:
  std::atomic<bool> established_ = false;
  server::Publisher publisher_;
};

class AvahiDiscoveryTest : public testing::Test {
 protected:
  void TearDown() override {
    found.reset();
    ASSERT_TRUE(WaitUntil(AnyDaemon)) << "the daemon is not back for the next test";
  }

  static bool AnyDaemon() {
    AvahiDiscovery probe;
    return probe.SearchForServices(Text("local"), Text(kType), [](auto, auto&) {}) != nullptr;
  }
  static QString Text(const char* text) { return QString::fromUtf8(text); }
  static NetService Nobody() { return {Text("Nobody"), Text(kType), Text("local"), false, -1}; }

  bool RunUntil(const char* name, bool known) { return found->RunUntil(Text(name), known); }
  void FindHousehold() {
    Search();
    ASSERT_TRUE(RunUntil("Household", true));
  }
  void Search(const char* type = kType) { found.emplace(discovery, Text(type)); }
  bool IsKnown(const char* name) const { return found->services.count(Text(name)) == 1; }
  NetService Household() { return found->services.at(Text("Household")); }

  template <typename Call>
  static std::chrono::milliseconds Duration(Call call) {
    const auto begun = test::Clock::now();
    call();
    return std::chrono::duration_cast<std::chrono::milliseconds>(test::Clock::now() - begun);
  }

  AvahiDiscovery discovery;
  std::optional<test::FoundServices> found;
};

TEST_F(AvahiDiscoveryTest, FindsAServiceThroughTheDomainItIsIn) {
  const Publication published;
  std::vector<QString> domains;
  std::vector<NetService> services;
  std::vector<std::unique_ptr<NetServiceBrowser>> browsers;
  browsers.push_back(discovery.SearchForDomains([&](std::uint32_t flags, const QString& domain) {
    EXPECT_EQ(flags, kNetServiceFlagIsDomain);
    domains.push_back(domain);
    browsers.push_back(discovery.SearchForServices(
        domain, Text(kType), [&](std::uint32_t serviceFlags, const NetService& service) {
          EXPECT_EQ(serviceFlags, 0u);
          services.push_back(service);
          browsers.clear();  // its own too
          discovery.Stop();
        }));
  }));
  const auto took = Duration([&] { discovery.Run(10s); });
  EXPECT_LT(took, 9s) << "Stop() did not end it";
  EXPECT_EQ(domains, std::vector<QString>{Text("local")});
  ASSERT_EQ(services.size(), 1u);
  EXPECT_EQ(services[0].name, Text("Household"));
  EXPECT_EQ(services[0].type, Text(kType));
  EXPECT_EQ(services[0].domain, Text("local"));
  EXPECT_TRUE(services[0].isLocal);
}

TEST_F(AvahiDiscoveryTest, ResolvesToSocketAddressesOfSixteenBytesWhateverTheName) {
  const char* const names[] = {"Büro · 家 \\ \"q\" & <b>", " a.b\\.c\\032d %1%s "};
  std::list<Publication> published;
  for (const char* name : names) published.emplace_back(name);
  const sockaddr_in expected{AF_INET, htons(kPort), {htonl(INADDR_LOOPBACK)}, {}};
  Search();
  for (const char* name : names) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(RunUntil(name, true));
    NetService service = found->services.at(Text(name));
    for (const int interface : {service.interfaceIndex, 99'999}) {  // gone since
      service.interfaceIndex = interface;
      const ResolvedService resolved = discovery.Resolve(service, 5s);
      ASSERT_EQ(resolved.error, 0) << avahi_strerror(resolved.error);
      EXPECT_EQ(resolved.targetHost, Text("vardell-desktop.local"));
      ASSERT_EQ(resolved.addresses.size(), 1u);
      EXPECT_EQ(resolved.addresses[0],
                QByteArray(reinterpret_cast<const char*>(&expected), sizeof expected));
    }
  }
}

TEST_F(AvahiDiscoveryTest, OnlyLiveBrowsersReportWhatComesAndGoesInsideRun) {
  Search();
  discovery.Run(50ms);
  Search("_vardellother._tcp");
  auto published = std::make_unique<Publication>("Later");
  const auto took = Duration([&] { discovery.Run(300ms); });
  EXPECT_TRUE(took >= 300ms && took < 1s) << took.count();
  EXPECT_FALSE(IsKnown("Later")) << "by a browser that is gone";
  Search();
  (void)WaitUntil([] { return false; }, 200ms);
  EXPECT_FALSE(IsKnown("Later")) << "between runs";
  EXPECT_TRUE(RunUntil("Later", true));
  published.reset();
  EXPECT_TRUE(RunUntil("Later", false));
}

TEST_F(AvahiDiscoveryTest, BrowsersMayOutliveTheDiscovery) {
  auto shortLived = std::make_unique<AvahiDiscovery>();
  const auto browser =
      shortLived->SearchForServices(Text("local"), Text(kType), [](auto, auto&) {});
  ASSERT_NE(browser, nullptr);
  shortLived.reset();
}

// ---- What can go wrong -------------------------------------------------------------------------

TEST_F(AvahiDiscoveryTest, RefusesWhatIsNoTypeOrDomainAndFailsInTimeOnAServiceThatIsNotThere) {
  const auto ignore = [](std::uint32_t, const NetService&) {};
  const QString local = Text("local");
  EXPECT_EQ(discovery.SearchForServices(local, QString(), ignore), nullptr);
  EXPECT_EQ(discovery.SearchForServices(local, Text("no type"), ignore), nullptr);
  EXPECT_EQ(discovery.SearchForServices(QString(2000, u'x'), Text(kType), ignore), nullptr);
  EXPECT_LT(discovery.Resolve({Text("Nobody"), Text("no type"), local, false, -1}, 1s).error, 0);
  ResolvedService resolved;
  EXPECT_LT(Duration([&] { resolved = discovery.Resolve(Nobody(), 400ms); }), 1s);
  EXPECT_EQ(resolved.error, AVAHI_ERR_TIMEOUT);
  EXPECT_TRUE(resolved.addresses.empty());
}

TEST_F(AvahiDiscoveryTest, WithoutABusSearchesDoNotStart) {
  // In a process of its own: the D-Bus library reads the address once.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus");
        _exit(discovery.SearchForDomains([](auto, auto&) {}) ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(AvahiDiscoveryTest, AFrozenDaemonHoldsNobodyUp) {
  const Publication published;
  ASSERT_NO_FATAL_FAILURE(FindHousehold());
  const test::FrozenAvahi frozen;
  std::unique_ptr<NetServiceBrowser> domains;
  ResolvedService resolved;
  EXPECT_LT(Duration([&] { domains = discovery.SearchForDomains([](auto, auto&) {}); }), 2s);
  EXPECT_EQ(domains, nullptr);
  EXPECT_LT(Duration([&] { resolved = discovery.Resolve(Household(), 300ms); }), 1s);
  EXPECT_LT(resolved.error, 0);
  EXPECT_LT(Duration([&] { discovery.Run(200ms); }), 1s);
  EXPECT_LT(Duration([&] { found.reset(); }), 1s);
}

TEST_F(AvahiDiscoveryTest, SearchesGoOnWithADaemonThatWasRestarted) {
  auto published = std::make_unique<Publication>();
  int domainsAdded = 0;
  int domainsRemoved = 0;
  const auto browser = discovery.SearchForDomains([&](std::uint32_t flags, const QString&) {
    ++(flags & kNetServiceFlagRemove ? domainsRemoved : domainsAdded);
  });
  ASSERT_NO_FATAL_FAILURE(FindHousehold());
  test::StopAvahi();
  ResolvedService resolved;
  EXPECT_LT(Duration([&] { resolved = discovery.Resolve(Nobody(), 3s); }), 3s)
      << "it dies under it";
  EXPECT_LT(resolved.error, 0);
  EXPECT_TRUE(RunUntil("Household", false)) << "what a dead daemon had found is still there";
  ASSERT_TRUE(WaitUntil([] { return !AnyDaemon(); }));
  EXPECT_LT(Duration([&] {
              EXPECT_EQ(discovery.SearchForDomains([](auto, auto&) {}), nullptr);
              EXPECT_LT(discovery.Resolve(Nobody(), 5s).error, 0);
              discovery.Run(200ms);
            }),
            1s);
  published.reset();
  test::StartAvahi();
  ASSERT_TRUE(WaitUntil(AnyDaemon));
  const Publication again("After");
  EXPECT_TRUE(RunUntil("After", true));
  EXPECT_EQ(domainsAdded, 2);
  EXPECT_EQ(domainsRemoved, 1);
}

}  // namespace
}  // namespace vardell
