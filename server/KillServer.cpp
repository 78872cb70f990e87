#include "server/KillServer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <charconv>
#include <utility>

#include "Common Sources/Caps.h"
#include "link/MessageEncoding.h"
#include "server/FrameListener.h"
#include "server/Household.h"
#include "server/LogLimit.h"
#include "server/Metrics.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;

// The payload is one counted string and nothing else.
std::optional<QString> TextOf(QByteArrayView bytes) {
  const QByteArray payload = bytes.toByteArray();
  qsizetype next = 0;
  const std::optional<QString> text = CopyStringFromData(payload, 0, &next);
  return next == payload.size() ? text : std::nullopt;
}

std::optional<pid_t> PidFrom(const QString& text) {
  const QByteArray digits = text.toUtf8();
  pid_t pid = 0;
  const char* end = digits.constData() + digits.size();
  const auto read = std::from_chars(digits.constData(), end, pid);
  if (read.ec != std::errc() || read.ptr != end || pid <= 0) return std::nullopt;
  return pid;
}

LogEvent EventOf(KillResult result, const QString& line) {
  switch (result) {
    case KillResult::Killed:
      return {"kill-done", LogPriority::Notice, line};
    case KillResult::NotTheirs:
    case KillResult::Protected:
      return {"kill-refused", LogPriority::Warning, line};
    default:
      return {"kill-failed", LogPriority::Info, line};
  }
}

}  // namespace

struct KillServer::Impl : std::enable_shared_from_this<Impl> {
  Impl(asio::io_context& context, Options given)
      : network(context), options(std::move(given)), logTimer(context) {}

  void Listen();
  RequestOutcome Handle(const AgentConnection& from, const RequestFrame& frame);
  void Kill(std::uint64_t connection, std::uint32_t requester, pid_t pid);
  void Finish(std::uint64_t connection, std::uint32_t requester, pid_t pid, KillResult result);
  void Log(const LogEvent& event);
  void TellMoreLater();

  asio::io_context& network;
  Options options;
  std::optional<FrameListener> listener;  // gone once the server stops
  LogLimit limit;
  asio::steady_timer logTimer;
  asio::thread_pool worker{1};
};

void KillServer::Impl::Listen() {
  FrameListener::Options frames;
  frames.address = QStringLiteral("127.0.0.1");
  frames.port = options.port;
  frames.whose = QStringLiteral("kill requests");
  frames.advice = QStringLiteral(
      "Stop the program that has this port (is another vardell-server running?) and start again");
  frames.mostConnections = kMaxKillConnections;
  frames.mostOfOnePeer = kMaxKillConnectionsOfUser;
  frames.userBehind = options.userBehind;
  frames.handle = [this](const AgentConnection& from, const RequestFrame& frame) {
    return Handle(from, frame);
  };
  frames.log = [this](const LogEvent& event) { Log(event); };
  if (Metrics* metrics = options.metrics) {
    frames.ended = [metrics](ConnectionEnd end) { metrics->kills.Count(end); };
  }
  listener.emplace(network, std::move(frames));
}

RequestOutcome KillServer::Impl::Handle(const AgentConnection& from, const RequestFrame& frame) {
  const bool isKill = frame.kind == static_cast<std::uint8_t>(RequestKind::KillProcess);
  const std::optional<QString> text = isKill ? TextOf(frame.payload) : std::nullopt;
  if (options.metrics) options.metrics->CountRequest(frame.kind);
  if (!text || !from.peerUid) return {{}, QStringLiteral("not a kill request")};
  if (const std::optional<pid_t> pid = PidFrom(*text)) {
    Kill(from.id, *from.peerUid, *pid);
    return {{}, std::nullopt, true};
  }
  if (options.metrics) ++options.metrics->killsWithoutPid;
  LogEvent event(
      "kill-refused", LogPriority::Warning,
      QStringLiteral("kill request of uid %1 for what is no pid: refused").arg(*from.peerUid));
  event.peerUid = from.peerUid;
  Log(event);
  return {};
}

void KillServer::Impl::Kill(std::uint64_t connection, std::uint32_t requester, pid_t pid) {
  asio::post(worker, [self = shared_from_this(), connection, requester, pid] {
    const KillResult result = self->options.kill(pid, requester);
    asio::post(self->network, [self, connection, requester, pid, result] {
      if (self->listener) self->Finish(connection, requester, pid, result);
    });
  });
}

void KillServer::Impl::Finish(std::uint64_t connection, std::uint32_t requester, pid_t pid,
                              KillResult result) {
  if (options.metrics) options.metrics->CountKill(result);
  const QString line = QStringLiteral("kill request of uid %1 for pid %2: %3")
                           .arg(requester)
                           .arg(pid)
                           .arg(ToString(result));
  LogEvent event = EventOf(result, line);
  event.peerUid = requester;
  event.pid = pid;
  Log(event);
  listener->ReadOn(connection);
}

void KillServer::Impl::Log(const LogEvent& event) {
  if (!options.log) return;
  if (limit.IsIdle()) TellMoreLater();
  if (limit.Admit(event)) options.log(event);
}

void KillServer::Impl::TellMoreLater() {
  logTimer.expires_after(options.logMinute);
  logTimer.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (error || !self->listener) return;
    for (const LogEvent& sum : self->limit.EndMinute()) self->options.log(sum);
  });
}

KillServer::KillServer(asio::io_context& network, Options options)
    : impl_(std::make_shared<Impl>(network, std::move(options))) {
  if (!impl_->options.kill) {
    impl_->options.kill = [](pid_t pid, uid_t requester) {
      return KillOnRequest(pid, requester, KillRules{});
    };
  }
  impl_->Listen();
}

KillServer::~KillServer() {
  impl_->listener.reset();
  impl_->logTimer.cancel();
  impl_->worker.stop();
  impl_->worker.join();
}

std::uint16_t KillServer::Port() const {
  return impl_->listener->Port();
}

int KillServer::Connections() const {
  return impl_->listener->Connections();
}

}  // namespace vardell::server
