#include "server/ControlJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

#include "limits/LimitsDictionary.h"
#include "server/LimitsOptions.h"

namespace vardell::server {
namespace {

QByteArray Bytes(const QJsonObject& object) {
  return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QJsonValue NullWhereEmpty(const QString& text) {
  return text.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(text);
}

// Never empty while it is away.
QJsonValue StoreProblem(const StoreFacts& store) {
  if (!store.isAway) return QJsonValue::Null;
  return store.problem.isEmpty() ? QStringLiteral("it takes no changes") : store.problem;
}

}  // namespace

QString ToRfc3339(const QDateTime& time) {
  return time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

QJsonObject ToJson(const LimitsEntry& entry) {
  QVariantMap limits = MakeLimitsDictionary(entry.limits);
  limits.remove(QStringLiteral("Credit"));
  return {{QStringLiteral("user"), entry.user},
          {QStringLiteral("identifier"), entry.identifier},
          {QStringLiteral("limits"), QJsonObject::fromVariantMap(limits)},
          {QStringLiteral("options"), OptionsJson(entry.options)},
          {QStringLiteral("credit"), qint64{entry.credit}},
          {QStringLiteral("revision"), static_cast<qint64>(entry.revision)}};
}

QJsonObject ToJson(const LedgerRow& row) {
  return {{QStringLiteral("id"), qint64{row.id}},
          {QStringLiteral("time"), ToRfc3339(row.time)},
          {QStringLiteral("day"), row.day.toString(Qt::ISODate)},
          {QStringLiteral("user"), row.user},
          {QStringLiteral("identifier"), row.identifier},
          {QStringLiteral("host"), row.host},
          {QStringLiteral("source"), row.source},
          {QStringLiteral("minutes"), qint64{row.minutes}},
          {QStringLiteral("credit"), qint64{row.credit}},
          {QStringLiteral("used"), qint64{row.used}},
          {QStringLiteral("claimed"),
           row.claimed ? QJsonValue(*row.claimed) : QJsonValue(QJsonValue::Null)},
          {QStringLiteral("actor"), row.actor},
          {QStringLiteral("reason"), row.reason}};
}

QJsonObject ToJson(const AgentFacts& agent) {
  QJsonArray applications;
  for (const AgentFacts::Application& application : agent.applications) {
    applications.append(
        QJsonObject{{QStringLiteral("identifier"), application.identifier},
                    {QStringLiteral("credit"), application.credit ? QJsonValue(*application.credit)
                                                                  : QJsonValue(QJsonValue::Null)},
                    {QStringLiteral("unlimited"), application.unlimited}});
  }
  return {{QStringLiteral("host"), agent.host},
          {QStringLiteral("user"), NullWhereEmpty(agent.user)},
          {QStringLiteral("since"), ToRfc3339(agent.since)},
          {QStringLiteral("applications"), applications}};
}

QJsonObject ToJson(const UsageDays& days) {
  QJsonObject object;
  for (const auto& [day, minutes] : days) {
    object.insert(day.toString(Qt::ISODate), qint64{minutes});
  }
  return object;
}

QJsonObject ToJson(const ServerStatus& status, const HouseholdFacts& household) {
  const StoreFacts& store = household.writing;
  return {{QStringLiteral("version"), status.version},
          {QStringLiteral("store"), household.store},
          {QStringLiteral("schema"), household.schema},
          {QStringLiteral("users"), household.users},
          {QStringLiteral("limits"), household.limits},
          {QStringLiteral("waiting"), static_cast<qint64>(store.waiting)},
          {QStringLiteral("spooled"), static_cast<qint64>(store.spooled)},
          {QStringLiteral("storeAway"), StoreProblem(store)},
          {QStringLiteral("storeAwaySince"), store.isAway && store.since.isValid()
                                                 ? QJsonValue(ToRfc3339(store.since))
                                                 : QJsonValue(QJsonValue::Null)},
          {QStringLiteral("zone"), household.zone},
          {QStringLiteral("address"), status.address},
          {QStringLiteral("published"), NullWhereEmpty(status.published.value_or(QString()))},
          {QStringLiteral("agents"), status.agents},
          {QStringLiteral("started"), ToRfc3339(status.started)}};
}

ControlAnswer MakeAnswer(int status, const QJsonObject& object) {
  ControlAnswer answer;
  answer.status = status;
  answer.contentType = QByteArrayLiteral("application/json");
  answer.body = Bytes(object);
  return answer;
}

ControlAnswer MakeAnswer(const Problem& problem) {
  ControlAnswer answer =
      MakeAnswer(problem.status, {{QStringLiteral("status"), problem.status},
                                  {QStringLiteral("code"), QLatin1String(problem.code)},
                                  {QStringLiteral("title"), problem.title},
                                  {QStringLiteral("field"), NullWhereEmpty(problem.field)},
                                  {QStringLiteral("hint"), NullWhereEmpty(problem.hint)}});
  answer.contentType = QByteArrayLiteral("application/problem+json");
  return answer;
}

}  // namespace vardell::server
