#include "control/Answers.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrl>

#include "Common Sources/PrintableText.h"
#include "control/Tables.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

// The Server knows the session and the home folder by their identifiers alone.
QString TitleText(const QJsonObject& problem) {
  QString title = Printable(problem[QStringLiteral("title")].toString());
  for (const char* identifier : {kLoginWindowIdentifier, kGlobalSettingsIdentifier}) {
    title.replace(QLatin1Char('"') + QLatin1String(identifier) + QLatin1Char('"'),
                  QLatin1Char('"') + ShownIdentifier(QLatin1String(identifier)) + QLatin1Char('"'));
  }
  return title;
}

Result Refused(int status, const QJsonObject& problem) {
  QString text = TitleText(problem);
  if (text.isEmpty()) {
    text = QStringLiteral("the Server answered with status %1").arg(status);
  }
  const QString field = Printable(problem[QStringLiteral("field")].toString());
  if (!field.isEmpty() && !text.contains(field)) {
    text += QStringLiteral(" (%1)").arg(field);
  }
  QString hint = Printable(problem[QStringLiteral("hint")].toString());
  if (status == 404 && hint.isEmpty()) {
    hint = QStringLiteral("vardellctl limits show lists the limits, limits set makes one.");
  }
  return Failed(hint.isEmpty() ? text : text + QLatin1Char('\n') + hint);
}

Result Unanswered(const HttpReply& reply, const QString& path) {
  const bool isThere = reply.outcome == HttpOutcome::NoAnswer;
  const QString text =
      isThere
          ? QStringLiteral(
                "the Server at %1 gave no answer: %2\n"
                "journalctl -u vardell-server may say why.")
          : QStringLiteral(
                "the Server cannot be reached at %1: %2\n"
                "Start it (systemctl start vardell-server), or name its socket with --control.");
  return {ExitStatus::Unreachable, {}, text.arg(path, reply.trouble)};
}

Answer AnswerOf(const HttpReply& reply, const QString& path, bool isJson) {
  Answer answer;
  answer.wasReached = reply.outcome != HttpOutcome::Unreachable;
  answer.trouble = reply.trouble;
  if (reply.outcome == HttpOutcome::Unreachable || reply.outcome == HttpOutcome::NoAnswer) {
    answer.failure = Unanswered(reply, path);
    return answer;
  }
  QJsonParseError parsing;
  const QJsonDocument document = QJsonDocument::fromJson(reply.body, &parsing);
  answer.status = reply.status;
  answer.body = reply.body;
  answer.json = document.object();
  const QString notUnderstood = QStringLiteral("the Server cannot be understood: ");
  if (reply.outcome == HttpOutcome::BadAnswer) {
    answer.failure = Failed(notUnderstood + answer.trouble);
  } else if (reply.status < 300 && isJson &&
             (parsing.error != QJsonParseError::NoError || !document.isObject())) {
    answer.trouble = QStringLiteral("no JSON object");
    answer.failure = Failed(notUnderstood + answer.trouble);
  } else if (reply.status >= 300) {
    answer.failure = Refused(reply.status, answer.json);
  }
  return answer;
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
  return AnswerOf(server.Ask(request), server.socketPath(), true);
}

Answer Get(const HttpClient& server, const QByteArray& target) {
  return Ask(server, {"GET", target, {}, {}});
}

Answer GetText(const HttpClient& server, const QByteArray& target) {
  return AnswerOf(server.Ask({"GET", target, {}, {}}), server.socketPath(), false);
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
  QString text;
  for (const QChar c : QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Indented))) {
    const bool isPlain = c == QLatin1Char('\n') || c.isSurrogate() || IsPrintable(c.unicode());
    text +=
        isPlain ? QString(c) : QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
  }
  return text;
}

QByteArray Body(const QJsonObject& json) {
  return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

QString ShownIdentifier(const QString& identifier) {
  if (identifier == QLatin1String(kLoginWindowIdentifier)) return QStringLiteral("computer");
  if (identifier == QLatin1String(kGlobalSettingsIdentifier)) return QStringLiteral("home");
  return Printable(identifier);
}

QString Subject(const QString& user, const QString& identifier) {
  return Printable(user) + QStringLiteral(", ") + ShownIdentifier(identifier);
}

}  // namespace vardell::control
