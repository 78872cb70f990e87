#include "control/LimitsCommands.h"

#include <QJsonArray>
#include <functional>

#include "control/LimitsKeys.h"
#include "control/LimitsNotices.h"
#include "control/Presets.h"
#include "control/Tables.h"
#include "control/Terminal.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

constexpr int kAttempts = 5;  // to change a limit that others change too

// The limits of one user or, for an empty name, of all.
Answer CollectLimits(const HttpClient& server, const QString& user, Terminal& terminal) {
  if (!user.isEmpty()) {
    return Get(server, UserTarget(user) + "/limits");
  }
  Answer all = Get(server, "/v1/users");
  QJsonArray limits;
  const QJsonArray users = all.json[QStringLiteral("users")].toArray();
  for (qsizetype i = 0; i < users.size(); ++i) {
    terminal.Progress(QStringLiteral("Reading limits"), i, users.size());
    const Answer one = Get(server, UserTarget(users[i].toString()) + "/limits");
    if (one.status == 404) continue;  // the user's last one has just been removed
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

HttpRequest RequestIfUnchanged(const QByteArray& method, const Command& command,
                               const Answer& before) {
  const qint64 revision = before.json[QStringLiteral("revision")].toInteger();
  return {method,
          LimitTarget(command.user, command.identifier),
          {{"If-Match", '"' + QByteArray::number(revision) + '"'}},
          {}};
}

QJsonObject ChangeBody(QJsonObject keys) {
  QJsonObject options;
  for (const QString& key : LimitsOptions()) {
    if (keys.contains(key)) options.insert(OptionField(key), keys.take(key));
  }
  QJsonObject body;
  if (!keys.isEmpty() || options.isEmpty()) body.insert(QStringLiteral("limits"), keys);
  if (!options.isEmpty()) body.insert(QStringLiteral("options"), options);
  return body;
}

HttpRequest ChangeRequest(const Command& command, const Answer& before) {
  HttpRequest request = RequestIfUnchanged("PATCH", command, before);
  QJsonObject keys = command.limits;
  if (before.status == 404) {
    request.headers = {{"If-None-Match", "*"}};
    const bool isHome = command.identifier == QLatin1String(kGlobalSettingsIdentifier);
    if (!isHome && !keys.contains(QStringLiteral("Enabled"))) {
      keys.insert(QStringLiteral("Enabled"), true);
    }
  }
  request.body = Body(ChangeBody(keys));
  return request;
}

struct Change {
  Answer before;  // of status 404 where there was no limit
  Answer after;
};

// Reads the limit and asks for the change of what was read; again when another one came between.
Change ChangeLimit(const Command& command, const HttpClient& server, bool mayBeNew,
                   const std::function<HttpRequest(const Answer& before)>& request) {
  Change change;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    change.before = Get(server, LimitTarget(command.user, command.identifier));
    const bool isNew = change.before.status == 404 && mayBeNew;
    if (!change.before.ok() && !isNew) return {change.before, change.before};
    if (isNew) change.before.json = {};
    change.after = Ask(server, request(change.before));
    if (change.after.status != 412) break;
  }
  return change;
}

QJsonObject FirstLimit(const QJsonObject& like) {
  QJsonObject keys;
  QJsonObject options;
  for (const QString& key : LimitsKeys()) {
    const QJsonValue first = FirstLimitsValue(key);
    const QString option = OptionField(key);
    if (!option.isEmpty()) options.insert(option, first);
    if (option.isEmpty() && !first.isUndefined()) keys.insert(key, first);
  }
  QJsonObject limit = like;
  limit[QStringLiteral("credit")] = 0;
  limit[QStringLiteral("limits")] = keys;
  limit[QStringLiteral("options")] = options;
  return limit;
}

QString ChangeText(const Command& command, const Change& change) {
  const bool isNew = change.before.status == 404;
  const QString table =
      ChangesTable(isNew ? FirstLimit(change.after.json) : change.before.json, change.after.json);
  const QString what = isNew             ? QStringLiteral(": a new limit.\n")
                       : table.isEmpty() ? QStringLiteral(": nothing changed.\n")
                                         : QStringLiteral(": changed.\n");
  return Subject(command.user, command.identifier) + what + table +
         WhenItCounts(change.before.json, change.after.json);
}

Result ChangeResult(const Command& command, const Change& change) {
  if (!change.after.ok()) {
    return change.after.failure;
  }
  Result result = Done(command.json ? JsonText(change.after.json) : ChangeText(command, change));
  result.notice = LimitNotices(change.before.json, change.after.json);
  return result;
}

QString RemovalText(const Command& command, const QJsonObject& limit) {
  QString text =
      Subject(command.user, command.identifier) + QStringLiteral(": the limit is removed");
  const qint64 credit = limit[QStringLiteral("credit")].toInteger();
  if (credit != 0) {
    text += QStringLiteral(", and %1 of credit with it").arg(MinutesText(credit));
  }
  return text + QStringLiteral(". It was:\n") + LimitsSheet(limit);
}

Result RemoveLimit(const Command& command, const HttpClient& server) {
  const Change change = ChangeLimit(command, server, false, [&](const Answer& before) {
    return RequestIfUnchanged("DELETE", command, before);
  });
  if (!change.after.ok()) {
    return change.after.failure;
  }
  if (!command.json) {
    return Done(RemovalText(command, change.before.json));
  }
  QJsonObject answer = change.after.json;
  answer[QStringLiteral("limit")] = change.before.json;
  return Done(JsonText(answer));
}

}  // namespace

Result ShowLimits(const Command& command, const HttpClient& server, Terminal& terminal) {
  if (!command.identifier.isEmpty()) {
    const Answer answer = Get(server, LimitTarget(command.user, command.identifier));
    if (!answer.ok()) {
      return answer.failure;
    }
    const bool isShow = command.verb == Verb::LimitsShow;
    Result result = Done(command.json ? JsonText(answer.json)
                         : isShow     ? LimitsSheet(answer.json)
                                      : CreditTable({answer.json}));
    if (isShow) result.notice = TopUpNotice(answer.json);
    return result;
  }
  const Answer answer = CollectLimits(server, command.user, terminal);
  if (!answer.ok()) {
    return answer.failure;
  }
  const QJsonArray limits = answer.json[QStringLiteral("limits")].toArray();
  return Done(command.json                       ? JsonText(answer.json)
              : command.verb == Verb::LimitsShow ? LimitsTable(limits)
                                                 : CreditTable(limits));
}

Result SetLimits(const Command& command, const HttpClient& server) {
  const Change change = ChangeLimit(
      command, server, true, [&](const Answer& before) { return ChangeRequest(command, before); });
  return ChangeResult(command, change);
}

Result UnsetLimits(const Command& command, const HttpClient& server) {
  if (command.keys.isEmpty()) {
    return RemoveLimit(command, server);
  }
  const Change change = ChangeLimit(
      command, server, false, [&](const Answer& before) { return ChangeRequest(command, before); });
  return ChangeResult(command, change);
}

Result ApplyPreset(const Command& command, const HttpClient& server) {
  const Preset* preset = FindPreset(command.preset);
  if (preset == nullptr) {
    return Done(command.json ? JsonText(PresetsJson()) : PresetsTable());
  }
  Command whole = command;
  whole.limits = preset->limits;
  for (auto key = command.limits.begin(); key != command.limits.end(); ++key) {
    whole.limits.insert(key.key(), key.value());
  }
  return SetLimits(whole, server);
}

}  // namespace vardell::control
