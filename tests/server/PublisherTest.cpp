#include "server/Publisher.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/simple-watch.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "link/VardellLoader.h"

namespace vardell::server {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 30s;

// What a Publisher said of itself, and waiting for it.
class States {
 public:
  Publisher::StateHandler Handler() {
    return [this](const std::optional<QString>& name, const QString& message) {
      const std::lock_guard lock(mutex_);
      name_ = name;
      messages_.push_back(message);
      changed_.notify_all();
    };
  }
  std::optional<QString> AwaitName() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return name_.has_value(); });
    return name_;
  }
  bool AwaitNoName() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [this] { return !name_.has_value(); });
  }
  QString LastMessage() {
    const std::lock_guard lock(mutex_);
    return messages_.empty() ? QString() : messages_.back();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<QString> name_;
  std::vector<QString> messages_;
};

// What the daemon itself shows to others: service name and port.
class Browser {
 public:
  Browser() : poll_(avahi_simple_poll_new()) {
    client_ = avahi_client_new(
        avahi_simple_poll_get(poll_), AvahiClientFlags{}, [](auto, auto, void*) {}, nullptr,
        nullptr);
    browser_ = avahi_service_browser_new(
        client_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, kServiceType, nullptr, AvahiLookupFlags{},
        [](AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
           AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
           AvahiLookupResultFlags, void* self) {
          static_cast<Browser*>(self)->OnEvent(interface, protocol, event, name, type, domain);
        },
        this);
  }
  ~Browser() {
    if (client_) avahi_client_free(client_);
    avahi_simple_poll_free(poll_);
  }
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  bool AwaitService(const QString& name, std::uint16_t port) {
    return Await([&] {
      const auto found = ports_.find(name);
      return found != ports_.end() && found->second == port;
    });
  }
  bool AwaitGone(const QString& name) {
    return Await([&] { return ports_.count(name) == 0; });
  }

 private:
  template <typename Condition>
  bool Await(Condition condition) {
    const auto deadline = Clock::now() + kPatience;
    while (!condition() && Clock::now() < deadline) (void)avahi_simple_poll_iterate(poll_, 100);
    return condition();
  }
  void OnEvent(AvahiIfIndex interface, AvahiProtocol protocol, AvahiBrowserEvent event,
               const char* name, const char* type, const char* domain) {
    if (event == AVAHI_BROWSER_REMOVE) ports_.erase(QString::fromUtf8(name));
    if (event != AVAHI_BROWSER_NEW) return;
    (void)avahi_service_resolver_new(
        client_, interface, protocol, name, type, domain, AVAHI_PROTO_UNSPEC, AvahiLookupFlags{},
        [](AvahiServiceResolver* resolver, AvahiIfIndex, AvahiProtocol, AvahiResolverEvent result,
           const char* service, const char*, const char*, const char*, const AvahiAddress*,
           std::uint16_t port, AvahiStringList*, AvahiLookupResultFlags, void* self) {
          if (result == AVAHI_RESOLVER_FOUND)
            static_cast<Browser*>(self)->ports_[QString::fromUtf8(service)] = port;
          avahi_service_resolver_free(resolver);
        },
        this);
  }

  AvahiSimplePoll* poll_;
  AvahiClient* client_ = nullptr;
  AvahiServiceBrowser* browser_ = nullptr;
  std::map<QString, std::uint16_t> ports_;
};

// The test's desktop stops and starts its Avahi daemon on a signal.
void TellDesktop(int number) {
  const char* pid = std::getenv("VARDELL_DESKTOP_PID");
  ASSERT_NE(pid, nullptr) << "run it under tools/desktop";
  ASSERT_EQ(kill(std::atoi(pid), number), 0);
}

TEST(Publisher, AgentsCanFindTheServiceAndItsPortUntilItEnds) {
  Browser browser;
  States states;
  {
    const Publisher publisher(40123, QStringLiteral("Test of the den"), states.Handler());
    EXPECT_EQ(states.AwaitName(), QStringLiteral("Test of the den"));
    EXPECT_TRUE(browser.AwaitService(QStringLiteral("Test of the den"), 40123));
  }
  EXPECT_TRUE(browser.AwaitGone(QStringLiteral("Test of the den")));
}

TEST(Publisher, IsNamedAfterTheHost) {
  States states;
  const Publisher publisher(40124, QString(), states.Handler());
  char host[256] = {};
  gethostname(host, sizeof(host) - 1);
  EXPECT_EQ(states.AwaitName(), QStringLiteral("Vardell on %1").arg(QString::fromLocal8Bit(host)));
}

TEST(Publisher, ATakenNameGivesWayToAnother) {
  Browser browser;
  States first;
  States second;
  const Publisher one(40125, QStringLiteral("Twice"), first.Handler());
  ASSERT_EQ(first.AwaitName(), QStringLiteral("Twice"));
  const Publisher two(40126, QStringLiteral("Twice"), second.Handler());
  const std::optional<QString> name = second.AwaitName();
  ASSERT_TRUE(name);
  EXPECT_NE(*name, QStringLiteral("Twice"));
  EXPECT_TRUE(browser.AwaitService(QStringLiteral("Twice"), 40125));
  EXPECT_TRUE(browser.AwaitService(*name, 40126));
}

TEST(Publisher, ANameTooLongIsCutBetweenCharacters) {
  States states;
  const Publisher publisher(40127, QStringLiteral("x") + QString(40, QChar(0x00e9)),
                            states.Handler());
  EXPECT_EQ(states.AwaitName(), QStringLiteral("x") + QString(31, QChar(0x00e9)));
}

TEST(Publisher, IsBackAfterTheDaemonWasAway) {
  States states;
  const Publisher publisher(40128, QStringLiteral("Back again"), states.Handler());
  ASSERT_TRUE(states.AwaitName());
  TellDesktop(SIGUSR2);
  ASSERT_TRUE(states.AwaitNoName());
  EXPECT_TRUE(states.LastMessage().contains(QStringLiteral("Waiting for the Avahi daemon")))
      << qPrintable(states.LastMessage());

  // At start-up it is an error, though.
  try {
    const Publisher early(40129, QString(), {});
    ADD_FAILURE() << "no daemon, and no error";
  } catch (const std::runtime_error& error) {
    const QString line = QString::fromUtf8(error.what());
    EXPECT_TRUE(line.contains(QStringLiteral("avahi-daemon"))) << error.what();
    EXPECT_TRUE(line.contains(QStringLiteral("--no-publish"))) << error.what();
  }

  TellDesktop(SIGUSR1);
  ASSERT_EQ(states.AwaitName(), QStringLiteral("Back again"));
  Browser browser;
  EXPECT_TRUE(browser.AwaitService(QStringLiteral("Back again"), 40128));
}

}  // namespace
}  // namespace vardell::server
