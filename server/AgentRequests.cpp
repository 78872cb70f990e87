#include "server/AgentRequests.h"

#include "Common Sources/Caps.h"
#include "Common Sources/PropertyList.h"
#include "link/MessageEncoding.h"
#include "server/Household.h"
#include "server/Metrics.h"
#include "server/PeerIdentity.h"

namespace vardell::server {
namespace {

RequestOutcome Malformed(const QString& why) {
  return {{}, why};
}

RequestOutcome Malformed(const RequestFrame& frame, PayloadError error) {
  return Malformed(QStringLiteral("malformed request of kind %1: %2")
                       .arg(frame.kind)
                       .arg(QLatin1String(PayloadErrorText(error))));
}

// An agent keeps no more of a reply than kMaxReplyBytes, and would take the rest for no answer.
RequestOutcome Answer(const QVariantMap& dictionary, std::uint64_t after) {
  std::optional<QByteArray> body = WritePropertyListXml(dictionary);
  if (!body || static_cast<std::size_t>(body->size()) > kMaxReplyBytes - kReplyHeaderBytes) {
    body = WritePropertyListXml(QVariantMap());
  }
  return {BuildReply(*body), std::nullopt, false, after};
}

RequestOutcome Answer(const FetchReply& reply) {
  return {reply.frame, std::nullopt, false, reply.after};
}

RequestOutcome Handle(Household& household, const AgentConnection& connection,
                      const RequestFrame& frame) {
  QString user;
  QString identifier;
  LimitsRecord record;
  PayloadError error = PayloadError::None;
  switch (static_cast<RequestKind>(frame.kind)) {
    case RequestKind::FetchLimits:
      error = ParseNamesPayload(frame.payload, &user, &identifier);
      if (error != PayloadError::None) return Malformed(frame, error);
      return Answer(household.AnswerFetch(connection, user, identifier));
    case RequestKind::ApplicationStart:
      error = ParseNamesPayload(frame.payload, &user, &identifier);
      if (error != PayloadError::None) return Malformed(frame, error);
      household.ApplicationStarted(connection, user, identifier);
      return {};
    case RequestKind::SingleQuery:
      error = ParseSinglePayload(frame.payload, &user);
      if (error != PayloadError::None) return Malformed(frame, error);
      return Answer(household.LimitsOfUser(connection, user), household.LastChange());
    case RequestKind::DictionaryQuery:
      error = ParseNamesPayload(frame.payload, &user, &identifier);
      if (error != PayloadError::None) return Malformed(frame, error);
      return Answer(household.UsageByDay(connection, user, identifier), household.LastChange());
    case RequestKind::CreditReport:
      error = ParseReportPayload(frame.payload, &user, &identifier, &record);
      if (error != PayloadError::None) return Malformed(frame, error);
      household.CreditReport(connection, user, identifier, record.credit);
      return {};
    case RequestKind::KillProcess:
      return Malformed(QStringLiteral("a kill request, which only the kill listener takes"));
  }
  return Malformed(QStringLiteral("unknown request kind %1").arg(frame.kind));
}

}  // namespace

FrameListener ListenForAgents(boost::asio::io_context& network, Household& household,
                              const QString& address, std::uint16_t port, LogHook log,
                              Metrics* metrics) {
  FrameListener::Options options;
  options.address = address;
  options.port = port;
  options.whose = QStringLiteral("agents");
  options.advice =
      QStringLiteral("Choose another --listen ADDR:PORT, or stop the program that has this port");
  options.mostConnections = kMaxAgentConnections;
  options.mostOfOnePeer = kMaxConnectionsPerAddress;
  options.mostOfOneUser = kMaxConnectionsOfUser;
  options.userBehind = UserBehind;
  options.handle = [&household, metrics](const AgentConnection& from, const RequestFrame& frame) {
    if (metrics) metrics->CountRequest(frame.kind);
    return Handle(household, from, frame);
  };
  options.opened = [&](const AgentConnection& connection) {
    household.ConnectionOpened(connection);
  };
  options.closed = [&](std::uint64_t connection) { household.ConnectionClosed(connection); };
  if (metrics) options.ended = [metrics](ConnectionEnd end) { metrics->agents.Count(end); };
  options.log = std::move(log);
  return FrameListener(network, std::move(options));
}

}  // namespace vardell::server
