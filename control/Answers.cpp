#include "control/Answers.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrl>

#include "control/Tables.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

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

}  // namespace

Result Done(const QString& output) {
  return {ExitStatus::Done, output, {}};
}

Result Failed(const QString& error) {
  return {ExitStatus::Failed, {}, error};
}

Result Misused(const QString& error) {
  return {ExitStatus::Usage, {}, error};
}

Answer Ask(const HttpClient& server, const HttpRequest& request) {
  const HttpReply reply = server.Ask(request);
  Answer answer;
  answer.wasReached = reply.outcome != HttpOutcome::Unreachable;
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

QByteArray Segment(const QString& text) {
  // A segment of dots alone would be read as a step up.
  const bool dots = text == QLatin1String(".") || text == QLatin1String("..");
  return QUrl::toPercentEncoding(text, QByteArray(), dots ? QByteArrayLiteral(".") : QByteArray());
}

QByteArray UserTarget(const QString& user) {
  return "/v1/users/" + Segment(user);
}

QByteArray LimitTarget(const QString& user, const QString& identifier) {
  return UserTarget(user) + "/limits/" + Segment(identifier);
}

QString ShellWord(const QString& text) {
  static const QRegularExpression kPlain(QStringLiteral("^[\\w.@%+=:,/-]+$"));
  if (kPlain.match(text).hasMatch()) return text;
  QString inside = Printable(text);
  return QLatin1Char('\'') + inside.replace(QLatin1Char('\''), QStringLiteral("'\\''")) +
         QLatin1Char('\'');
}

QString MinutesText(qint64 minutes) {
  return minutes == 1 ? QStringLiteral("1 minute") : QStringLiteral("%1 minutes").arg(minutes);
}

QString JsonText(const QJsonObject& json) {
  return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Indented));
}

QByteArray Body(const QJsonObject& json) {
  return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

QString ShownIdentifier(const QString& identifier) {
  if (identifier == QLatin1String(kLoginWindowIdentifier)) return QStringLiteral("computer");
  if (identifier == QLatin1String(kGlobalSettingsIdentifier)) return QStringLiteral("home");
  return Printable(identifier);
}

}  // namespace vardell::control
