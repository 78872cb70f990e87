// One request on the control socket on its way to its answer, and what the resources' functions
// share. The functions of one group of resources stand in a file of their own.
#pragma once

#include <QDate>
#include <QJsonObject>
#include <QString>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <vector>

#include "server/ControlApi.h"
#include "server/ControlJson.h"
#include "server/ControlReading.h"

namespace vardell::server {

struct Call {
  const ControlResources& resources;
  const Requester& requester;
  const ControlRequest& request;
  std::vector<QString> path;
  QueryFields query;

  Household& household() const { return resources.household; }
  // The segments of "v1/users/{u}/limits/{id}".
  const QString& user() const { return path[2]; }
  const QString& identifier() const { return path[4]; }
  // Empty where the query has no such field.
  QString queried(const char* name) const {
    const auto found = query.find(QLatin1String(name));
    return found == query.end() ? QString() : found->second;
  }
};

Problem BadRequest(const QString& title, const QString& field = {}, const QString& hint = {});
Problem BadValue(const QString& field, const QString& title);
Problem UnknownField(const QString& name);
Problem NotFound(const QString& title);
Problem StoreFailed(const QString& hint);

struct Body {
  QJsonObject object;
  std::optional<Problem> problem;
};

// A JSON object of no other fields than these.
Body ReadBody(const QByteArray& bytes, std::initializer_list<const char*> fields);

// --- ControlApiStatus.cpp

ControlAnswer GetStatus(const Call& call);
ControlAnswer GetMetrics(const Call& call);
ControlAnswer GetUsers(const Call& call);
ControlAnswer GetAgents(const Call& call);

// --- ControlApiLimits.cpp

ControlAnswer GetLimits(const Call& call);
ControlAnswer GetLimit(const Call& call);
ControlAnswer PatchLimit(const Call& call);
ControlAnswer DeleteLimit(const Call& call);

// --- ControlApiCredit.cpp

ControlAnswer PutCredit(const Call& call);
ControlAnswer PostAdjustment(const Call& call);
ControlAnswer GetLedger(const Call& call);

// --- ControlApiUsage.cpp

ControlAnswer GetUsageOfUser(const Call& call);
ControlAnswer GetUsage(const Call& call);

// --- ControlApiBackup.cpp

ControlOutcome GetBackup(const Call& call);
ControlOutcome PutBackup(const Call& call);
// What to do about one above kMaxBackupBytes.
QString HintForLargeBackups();

// --- What several of them answer.

// The limit with its ETag; `more` is put into the object besides.
ControlAnswer AnswerLimit(int status, const LimitsEntry& entry, const QJsonObject& more = {});
// What the Household refused.
Problem ProblemOf(const Call& call, const AdminResult& result);
Problem NoLimits(const Call& call);

}  // namespace vardell::server
