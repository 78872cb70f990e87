#include "control/Commands.h"

#include <QJsonDocument>
#include <QUrl>

#include "control/Tables.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

constexpr int kLedgerPage = 500;
constexpr int kAttempts = 5;  // to change a limit that others change too

// What the Server said: JSON, or the Result to end with.
struct Answer {
  int status = 0;
  QJsonObject json;
  Result failure;
  bool ok() const { return failure.status == ExitStatus::Done && status < 300; }
};

QByteArray Segment(const QString& text) {
  // A segment of dots alone would be read as a step up.
  const bool dots = text == QLatin1String(".") || text == QLatin1String("..");
  return QUrl::toPercentEncoding(text, QByteArray(), dots ? QByteArrayLiteral(".") : QByteArray());
}

QByteArray LimitsTarget(const QString& user) {
  return "/v1/users/" + Segment(user) + "/limits";
}

QByteArray LimitTarget(const QString& user, const QString& identifier) {
  return LimitsTarget(user) + '/' + Segment(identifier);
}

Result Failed(const QString& error) {
  return {ExitStatus::Failed, {}, error};
}

Result Refused(int status, const QJsonObject& problem) {
  QString text = Printable(problem[QStringLiteral("title")].toString());
  if (text.isEmpty()) {
    text = QStringLiteral("the Server answered with status %1").arg(status);
  }
  const QString field = Printable(problem[QStringLiteral("field")].toString());
  if (!field.isEmpty() && !text.contains(field)) {
    text += QStringLiteral(" (%1)").arg(field);
  }
  const QString hint = Printable(problem[QStringLiteral("hint")].toString());
  return Failed(hint.isEmpty() ? text : text + QLatin1Char('\n') + hint);
}

Answer Ask(const HttpClient& server, const HttpRequest& request) {
  const HttpReply reply = server.Ask(request);
  Answer answer;
  if (reply.outcome == HttpOutcome::Unreachable || reply.outcome == HttpOutcome::NoAnswer) {
    answer.failure = {ExitStatus::Unreachable, {}, reply.trouble};
    return answer;
  }
  QJsonParseError parsing;
  const QJsonDocument document = QJsonDocument::fromJson(reply.body, &parsing);
  answer.status = reply.status;
  answer.json = document.object();
  if (reply.outcome == HttpOutcome::BadAnswer) {
    answer.failure = Failed(QStringLiteral("the Server cannot be understood: ") + reply.trouble);
  } else if (reply.status < 300 &&
             (parsing.error != QJsonParseError::NoError || !document.isObject())) {
    answer.failure = Failed(QStringLiteral("the Server cannot be understood: no JSON object"));
  } else if (reply.status >= 300) {
    answer.failure = Refused(reply.status, answer.json);
  }
  return answer;
}

Answer Get(const HttpClient& server, const QByteArray& target) {
  return Ask(server, {"GET", target, {}, {}});
}

QString JsonText(const QJsonObject& json) {
  return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Indented));
}

QByteArray Body(const QJsonObject& json) {
  return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

Result Done(const QString& output) {
  return {ExitStatus::Done, output, {}};
}

Result ShowStatus(const Command& command, const HttpClient& server) {
  const Answer answer = Get(server, "/v1/status");
  if (!answer.ok()) {
    return answer.failure;
  }
  return Done(command.json ? JsonText(answer.json) : StatusText(answer.json));
}

// The limits of one user or, for an empty name, of all.
Answer CollectLimits(const HttpClient& server, const QString& user) {
  if (!user.isEmpty()) {
    return Get(server, LimitsTarget(user));
  }
  Answer all = Get(server, "/v1/users");
  QJsonArray limits;
  const QJsonArray users = all.json[QStringLiteral("users")].toArray();
  for (const QJsonValue& name : users) {
    const Answer one = Get(server, LimitsTarget(name.toString()));
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

Result ShowLimits(const Command& command, const HttpClient& server) {
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

Answer LedgerPage(const Command& command, const HttpClient& server, qint64 after) {
  return Get(server, "/v1/ledger?after=" + QByteArray::number(after) + "&user=" +
                         Segment(command.user) + "&identifier=" + Segment(command.identifier) +
                         "&limit=" + QByteArray::number(kLedgerPage));
}

Result ShowLedger(const Command& command, const HttpClient& server) {
  QJsonArray rows;
  qint64 after = command.after;
  while (true) {
    const Answer page = LedgerPage(command, server, after);
    if (!page.ok()) {
      return page.failure;
    }
    const QJsonArray more = page.json[QStringLiteral("rows")].toArray();
    if (more.isEmpty()) {
      break;
    }
    for (const QJsonValue& row : more) {
      rows.append(row);
    }
    const qint64 last = more.last()[QStringLiteral("id")].toInteger();
    if (last <= after) {
      return Failed(QStringLiteral("the Server cannot be understood: its ledger does not go on"));
    }
    after = last;
  }
  return Done(command.json ? JsonText({{QStringLiteral("rows"), rows}}) : LedgerTable(rows));
}

}  // namespace

Result Run(const Command& command, const HttpClient& server) {
  switch (command.verb) {
    case Verb::Status:
      return ShowStatus(command, server);
    case Verb::LimitsShow:
    case Verb::CreditShow:
      return ShowLimits(command, server);
    case Verb::LimitsSet:
      return SetLimits(command, server);
    case Verb::CreditSet:
      return SetCredit(command, server);
    case Verb::Ledger:
      return ShowLedger(command, server);
    case Verb::Help:
    case Verb::Version:
      break;
  }
  return Failed(QStringLiteral("nothing to ask the Server"));
}

}  // namespace vardell::control
