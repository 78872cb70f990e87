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
#include "server/Options.h"
#include "server/Publisher.h"
#include "server/Store.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;

void Say(const QString& line) {
  std::fprintf(stderr, "vardell-server: %s\n", qUtf8Printable(line));
}

// One descriptor for each agent.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &limit);
}

std::unique_ptr<Household> OpenHousehold(const Options& options) {
  if (options.store == ProductPath(QLatin1String(kDefaultStorePath))) {
    (void)QDir().mkpath(QFileInfo(options.store).path());
  }
  Clocks clocks;
  clocks.sinceBoot = TimeSinceBoot;
  clocks.bootId = BootId();
  clocks.now = [] { return QDateTime::currentDateTime(); };
  clocks.second = SecondLength();
  clocks.zone = SystemZone;
  clocks.isSet = IsClockSet;
  return std::make_unique<Household>(OpenStore(options.store), std::move(clocks),
                                     HouseholdHooks{{}, Say});
}

void WriteWhatWaits(asio::steady_timer& timer, Household& household) {
  timer.expires_after(std::chrono::seconds(5));
  timer.async_wait([&](const boost::system::error_code& error) {
    if (error) return;
    household.WriteWhatWaits();
    WriteWhatWaits(timer, household);
  });
}

void TopUpWhenDue(asio::steady_timer& timer, Household& household) {
  const bool isMoreDue = household.TopUpDue();
  timer.expires_after(std::chrono::seconds(isMoreDue ? 0 : 10));
  timer.async_wait([&](const boost::system::error_code& error) {
    if (!error) TopUpWhenDue(timer, household);
  });
}

void ServeEverything(asio::io_context& network, const Options& options) {
  const std::unique_ptr<Household> household = OpenHousehold(options);
  while (household->TopUpDue()) continue;
  const QDateTime started = QDateTime::currentDateTime();
  std::optional<QString> published;
  KillServer::Options killOptions;
  killOptions.log = Say;
  KillServer killServer(network, killOptions);
  const FrameListener agents =
      ListenForAgents(network, *household, options.listenAddress, options.listenPort, Say);
  const auto status = [&] {
    return ServerStatus{QStringLiteral(VARDELL_VERSION), agents.Address(), published,
                        agents.Connections(), started};
  };
  ControlServer::Options controlOptions;
  controlOptions.path = options.control;
  controlOptions.status = status;
  ControlServer control(network, *household, controlOptions);
  std::unique_ptr<Publisher> publisher;
  if (options.publish) {
    const auto changed = [&](const std::optional<QString>& name, const QString& message) {
      asio::post(network, [&published, name, message] {
        published = name;
        Say(message);
      });
    };
    publisher = std::make_unique<Publisher>(agents.Port(), QString(), changed);
  }
  asio::steady_timer timer(network);
  WriteWhatWaits(timer, *household);
  asio::steady_timer topUpTimer(network);
  TopUpWhenDue(topUpTimer, *household);
  Say(QStringLiteral("ending processes on request at 127.0.0.1:%1").arg(killServer.Port()));
  Say(QStringLiteral("taking commands at %1").arg(options.control));
  Say(QStringLiteral("answering agents at %1").arg(agents.Address()));
  network.run();
}

void ServeKillRequests(asio::io_context& network) {
  KillServer::Options options;
  options.log = Say;
  KillServer killServer(network, options);
  Say(QStringLiteral("ending processes on request at 127.0.0.1:%1").arg(killServer.Port()));
  network.run();
}

int Main(const QStringList& arguments) {
  Options options;
  QString text;
  switch (ParseOptions(arguments, &options, &text)) {
    case OptionsResult::ShowText:
      std::fputs(qUtf8Printable(text), stdout);
      return 0;
    case OptionsResult::Misused:
      Say(text);
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
    options.killOnly ? ServeKillRequests(network) : ServeEverything(network, options);
    return 0;
  } catch (const std::runtime_error& error) {
    Say(QString::fromUtf8(error.what()));
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
