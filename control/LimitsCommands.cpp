#include "control/LimitsCommands.h"

#include <QJsonArray>

#include "control/Tables.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

constexpr int kAttempts = 5;  // to change a limit that others change too

// The limits of one user or, for an empty name, of all.
Answer CollectLimits(const HttpClient& server, const QString& user) {
  if (!user.isEmpty()) {
    return Get(server, UserTarget(user) + "/limits");
  }
  Answer all = Get(server, "/v1/users");
  QJsonArray limits;
  const QJsonArray users = all.json[QStringLiteral("users")].toArray();
  for (const QJsonValue& name : users) {
    const Answer one = Get(server, UserTarget(name.toString()) + "/limits");
    if (!one.ok()) {
      return one;
    }
    const QJsonArray more = one.json[QStringLiteral("limits")].toArray();
    for (const QJsonValue& limit : more) {
      limits.append(limit);
    }
  }
  all.json = {{QStringLiteral("limits"), limits}};
  return all;
}

HttpRequest ChangeRequest(const Command& command, const Answer& current) {
  HttpRequest request{"PATCH", LimitTarget(command.user, command.identifier), {}, {}};
  QJsonObject keys = command.limits;
  if (current.status == 404) {
    request.headers.emplace_back("If-None-Match", "*");
    const bool isHome = command.identifier == QLatin1String(kGlobalSettingsIdentifier);
    if (!isHome && !keys.contains(QStringLiteral("Enabled"))) {
      keys.insert(QStringLiteral("Enabled"), true);
    }
  } else {
    const qint64 revision = current.json[QStringLiteral("revision")].toInteger();
    request.headers.emplace_back("If-Match", '"' + QByteArray::number(revision) + '"');
  }
  request.body = Body({{QStringLiteral("limits"), keys}});
  return request;
}

}  // namespace

Result ShowLimits(const Command& command, const HttpClient& server, Terminal&) {
  if (!command.identifier.isEmpty()) {
    const Answer answer = Get(server, LimitTarget(command.user, command.identifier));
    if (!answer.ok()) {
      return answer.failure;
    }
    return Done(command.json                       ? JsonText(answer.json)
                : command.verb == Verb::LimitsShow ? LimitsSheet(answer.json)
                                                   : CreditTable({answer.json}));
  }
  const Answer answer = CollectLimits(server, command.user);
  if (!answer.ok()) {
    return answer.failure;
  }
  const QJsonArray limits = answer.json[QStringLiteral("limits")].toArray();
  return Done(command.json                       ? JsonText(answer.json)
              : command.verb == Verb::LimitsShow ? LimitsTable(limits)
                                                 : CreditTable(limits));
}

Result SetLimits(const Command& command, const HttpClient& server) {
  Answer changed;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const Answer current = Get(server, LimitTarget(command.user, command.identifier));
    if (!current.ok() && current.status != 404) {
      return current.failure;
    }
    changed = Ask(server, ChangeRequest(command, current));
    if (changed.status != 412) {
      break;
    }
  }
  if (!changed.ok()) {
    return changed.failure;
  }
  return Done(command.json ? JsonText(changed.json) : LimitsSheet(changed.json));
}

Result SetCredit(const Command& command, const HttpClient& server) {
  const QJsonObject body{{QStringLiteral("minutes"), static_cast<qint64>(command.minutes)},
                         {QStringLiteral("id"), command.id},
                         {QStringLiteral("reason"), command.reason}};
  const HttpRequest request{
      "PUT", LimitTarget(command.user, command.identifier) + "/credit", {}, Body(body)};
  Answer answer = Ask(server, request);
  if (!answer.ok()) {
    if (answer.status == 404) {
      answer.failure.error += QStringLiteral("\nvardellctl limits set makes a limit first.");
    } else if (answer.status == 0) {
      answer.failure.error +=
          QStringLiteral(
              "\nIt may have been done; the same command with --id %1 is safe to repeat.")
              .arg(command.id);
    }
    return answer.failure;
  }
  return Done(command.json ? JsonText(answer.json) : CreditTable({answer.json}));
}

}  // namespace vardell::control
