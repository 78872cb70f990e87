// A Publisher on a real Avahi daemon, found by the discovery that agents have.
#include "server/Publisher.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>

#include "link/VardellLoader.h"
#include "tests/support/AvahiDaemon.h"

namespace vardell::server {
namespace {

using namespace std::chrono_literals;

// What a Publisher said of itself, and waiting for it.
class States {
 public:
  Publisher::StateHandler Handler() {
    return [this](const std::optional<QString>& name, const QString& message) {
      const std::lock_guard lock(mutex_);
      name_ = name;
      message_ = message;
      changed_.notify_all();
    };
  }
  std::optional<QString> Await(bool isPublished = true) {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, 40s, [&] { return name_.has_value() == isPublished; }));
    return name_;
  }
  QString LastMessage() {
    const std::lock_guard lock(mutex_);
    return message_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<QString> name_;
  QString message_;
};

class Agents {
 public:
  bool See(const QString& name, bool known = true) { return found_.RunUntil(name, known); }
  int PortOf(const QString& name) {
    const ResolvedService resolved = discovery_.Resolve(found_.services[name], 10s);
    sockaddr_in address{};
    if (resolved.addresses.empty()) return -1;
    std::memcpy(&address, resolved.addresses[0].constData(), sizeof(address));
    return ntohs(address.sin_port);
  }

 private:
  AvahiDiscovery discovery_;
  test::FoundServices found_{discovery_, QLatin1String(kServiceType)};
};

TEST(Publisher, AgentsCanFindTheServiceAndItsPortUntilItEnds) {
  Agents agents;
  {
    States first, second;
    const Publisher one(40125, QString(), first.Handler());
    const std::optional<QString> taken = first.Await();
    ASSERT_TRUE(taken && taken->startsWith(QStringLiteral("Vardell on ")));
    const Publisher two(40126, QString(), second.Handler());
    const std::optional<QString> name = second.Await();
    ASSERT_TRUE(name);
    EXPECT_NE(*name, *taken) << "a taken name gives way to another";
    ASSERT_TRUE(agents.See(*name));
    EXPECT_EQ(agents.PortOf(*name), 40126);
  }
  States states;
  const QString shortened = QStringLiteral("x") + QString(31, QChar(0x00e9));
  {
    const Publisher publisher(40127, shortened + QString(9, QChar(0x00e9)), states.Handler());
    EXPECT_EQ(states.Await(), shortened) << "a name too long is cut between characters";
    EXPECT_TRUE(agents.See(shortened));
  }
  EXPECT_TRUE(agents.See(shortened, false));
}

TEST(Publisher, IsBackAfterTheDaemonWasAway) {
  States states;
  const Publisher publisher(40128, QStringLiteral("Back again"), states.Handler());
  ASSERT_TRUE(states.Await());
  test::StopAvahi();
  ASSERT_FALSE(states.Await(false));
  EXPECT_TRUE(states.LastMessage().contains(QStringLiteral("Waiting for the Avahi daemon")));

  // At start-up it is an error, though.
  try {
    const Publisher early(40129, QString(), {});
    ADD_FAILURE() << "no daemon, and no error";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find("--no-publish"), std::string::npos) << error.what();
  }

  test::StartAvahi();
  ASSERT_EQ(states.Await(), QStringLiteral("Back again"));
  EXPECT_TRUE(Agents().See(QStringLiteral("Back again")));
}

TEST(Publisher, ADaemonThatStandsStillHoldsNobodyUp) {
  States states;
  std::optional<Publisher> publisher;
  {
    const test::FrozenAvahi frozen;
    const auto before = test::Clock::now();
    publisher.emplace(40130, QStringLiteral("Ends in the midst of a call"), states.Handler());
    publisher.reset();
    publisher.emplace(40131, QStringLiteral("Beginning"), states.Handler());
    EXPECT_LT(test::Clock::now() - before, 6s);
    EXPECT_TRUE(states.LastMessage().contains(QStringLiteral("does not answer")));
  }
  EXPECT_EQ(states.Await(), QStringLiteral("Beginning"));
}

}  // namespace
}  // namespace vardell::server
