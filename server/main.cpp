#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <QDir>
#include <QFileInfo>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "Common Sources/TestHooks.h"
#include "server/AgentRequests.h"
#include "server/BootClock.h"
#include "server/ControlServer.h"
#include "server/Household.h"
#include "server/KillServer.h"
#include "server/Log.h"
#include "server/Metrics.h"
#include "server/Options.h"
#include "server/Publisher.h"
#include "server/Store.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;

constexpr std::chrono::seconds kTimeBetweenTries{2};

// One descriptor for each agent.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

// A file without a byte would be taken for a new store; but where there is a spool, there was one.
void RefuseEmptied(const Options& options) {
  const QFileInfo store(options.store);
  if (!store.isFile() || store.size() != 0 || !QFileInfo::exists(options.spool)) return;
  throw std::runtime_error(
      QStringLiteral("the store %1 is empty, and it was not: its spool %2 is there; put a backup "
                     "in its place, or remove it to begin with an empty one")
          .arg(options.store, options.spool)
          .toStdString());
}

std::unique_ptr<Household> OpenHousehold(const Options& options, const HouseholdHooks& hooks) {
  if (options.store == ProductPath(QLatin1String(kDefaultStorePath))) {
    (void)QDir().mkpath(QFileInfo(options.store).path());
  }
  if (!IsPostgresLocation(options.store)) RefuseEmptied(options);
  Clocks clocks;
  clocks.sinceBoot = TimeSinceBoot;
  clocks.bootId = BootId();
  clocks.now = [clock = WallClock()]() mutable { return clock.Now(); };
  clocks.second = SecondLength();
  clocks.zone = SystemZone;
  clocks.isSet = IsClockSet;
  return std::make_unique<Household>(OpenStore(options.store), std::move(clocks), hooks,
                                     options.spool);
}

// Waits for a store that cannot be reached yet, having told; null where the Server is to end.
std::unique_ptr<Household> WaitForHousehold(asio::io_context& network, const Options& options,
                                            const HouseholdHooks& hooks,
                                            const std::function<void()>& isAway) {
  asio::steady_timer pause(network);
  for (bool isSaid = false; !network.stopped(); isSaid = true) {
    try {
      return OpenHousehold(options, hooks);
    } catch (const StoreAway& problem) {
      const QString line = QString::fromUtf8(problem.what()) + QStringLiteral("; waiting for it");
      if (!isSaid) hooks.log(LogEvent("store-away", LogPriority::Error, line));
      if (!isSaid) isAway();
    }
    bool isOver = false;
    pause.expires_after(kTimeBetweenTries);
    pause.async_wait([&](const boost::system::error_code&) { isOver = true; });
    while (!isOver && network.run_one() > 0) continue;
  }
  return nullptr;
}

void TopUpWhenDue(asio::steady_timer& timer, Household& household) {
  const bool isMoreDue = household.TopUpDue();
  timer.expires_after(std::chrono::seconds(isMoreDue ? 0 : 10));
  timer.async_wait([&](const boost::system::error_code& error) {
    if (!error) TopUpWhenDue(timer, household);
  });
}

void ServeEverything(asio::io_context& network, const Options& options, const LogHook& say) {
  Metrics metrics;
  std::unique_ptr<KillServer> killServer;
  const auto serveKillRequests = [&] {
    KillServer::Options killOptions;
    killOptions.log = say;
    killOptions.metrics = &metrics;
    killServer = std::make_unique<KillServer>(network, killOptions);
  };
  std::unique_ptr<FrameListener> agents;
  Household* stored = nullptr;
  const auto takeStored = [&] {
    if (stored && agents) agents->Release(stored->TakeStored());
  };
  const std::unique_ptr<Household> household = WaitForHousehold(
      network, options, {{}, say, [&] { asio::post(network, takeStored); }}, serveKillRequests);
  if (!household) return;
  if (!killServer) serveKillRequests();
  stored = household.get();
  while (household->TopUpDue()) continue;
  const QDateTime started = QDateTime::currentDateTime();
  std::optional<QString> published;
  agents.reset(new FrameListener(ListenForAgents(network, *household, options.listenAddress,
                                                 options.listenPort, say, &metrics)));
  takeStored();
  const auto status = [&] {
    return ServerStatus{
        QStringLiteral(VARDELL_VERSION), agents->Address(), published,
        agents->Connections(),           started,           killServer->Connections()};
  };
  ControlServer::Options controlOptions;
  controlOptions.path = options.control;
  controlOptions.status = status;
  controlOptions.metrics = &metrics;
  ControlServer control(network, *household, controlOptions);
  std::unique_ptr<Publisher> publisher;
  if (options.publish) {
    const auto changed = [&](const std::optional<QString>& name, const QString& message) {
      asio::post(network, [&published, &say, name, message] {
        published = name;
        say(message);
      });
    };
    publisher = std::make_unique<Publisher>(agents->Port(), QString(), changed);
  }
  asio::steady_timer topUpTimer(network);
  TopUpWhenDue(topUpTimer, *household);
  say(QStringLiteral("ending processes on request at 127.0.0.1:%1").arg(killServer->Port()));
  say(QStringLiteral("taking commands at %1").arg(options.control));
  say(QStringLiteral("answering agents at %1").arg(agents->Address()));
  network.run();
}

void ServeKillRequests(asio::io_context& network, const LogHook& say) {
  KillServer::Options options;
  options.log = say;
  KillServer killServer(network, options);
  say(QStringLiteral("ending processes on request at 127.0.0.1:%1").arg(killServer.Port()));
  network.run();
}

int Main(const QStringList& arguments) {
  const Log log;
  const LogHook say = [&log](const LogEvent& event) { log.Write(event); };
  Options options;
  QString text;
  switch (ParseOptions(arguments, &options, &text)) {
    case OptionsResult::ShowText:
      std::fputs(qUtf8Printable(text), stdout);
      return 0;
    case OptionsResult::Misused:
      say(text);
      return 2;
    case OptionsResult::Run:
      break;
  }
  umask(S_IRWXG | S_IRWXO);
  RaiseDescriptorLimit();
  asio::io_context network(1);
  asio::signal_set signals(network, SIGTERM, SIGINT);
  signals.async_wait([&](const boost::system::error_code&, int) { network.stop(); });
  try {
    options.killOnly ? ServeKillRequests(network, say) : ServeEverything(network, options, say);
    return 0;
  } catch (const std::runtime_error& error) {
    say({"start-failed", LogPriority::Error, QString::fromUtf8(error.what())});
    return 1;
  }
}

}  // namespace
}  // namespace vardell::server

int main(int argumentCount, char** arguments) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  setvbuf(stderr, nullptr, _IOLBF, 0);
  QStringList words;
  for (int i = 1; i < argumentCount; ++i) words.append(QString::fromLocal8Bit(arguments[i]));
  return vardell::server::Main(words);
}
