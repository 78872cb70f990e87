// What the Server is doing, and for whom.
#include <QJsonArray>

#include "server/ControlCall.h"
#include "server/Metrics.h"

namespace vardell::server {

ControlAnswer GetStatus(const Call& call) {
  return MakeAnswer(200, ToJson(call.resources.status(), call.household().Facts()));
}

ControlAnswer GetMetrics(const Call& call) {
  const ControlResources& resources = call.resources;
  ControlAnswer answer;
  answer.contentType = kMetricsContentType;
  answer.body = MetricsText(resources.metrics ? *resources.metrics : Metrics(), resources.status(),
                            call.household().Facts());
  return answer;
}

ControlAnswer GetUsers(const Call& call) {
  QJsonArray users;
  for (const QString& user : call.household().Users()) {
    if (Authorise(call.requester, Verb::Read, user)) users.append(user);
  }
  return MakeAnswer(200, {{QStringLiteral("users"), users}});
}

ControlAnswer GetAgents(const Call& call) {
  const auto maySee = [&](const QString& user) {
    return Authorise(call.requester, Verb::Read, user);
  };
  QJsonArray agents;
  for (const AgentFacts& agent : call.household().Agents(maySee)) agents.append(ToJson(agent));
  return MakeAnswer(200, {{QStringLiteral("agents"), agents}});
}

}  // namespace vardell::server
