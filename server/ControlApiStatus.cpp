// What the Server is doing, and for whom.
#include <QJsonArray>

#include "server/ControlCall.h"

namespace vardell::server {

ControlAnswer GetStatus(const Call& call) {
  return MakeAnswer(200, ToJson(call.resources.status(), call.household().Facts()));
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
