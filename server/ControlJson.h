// The control socket's records as JSON, and what its errors look like.
#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

#include "server/ControlApi.h"
#include "server/Household.h"

namespace vardell::server {

// One refusal. `code` is stable and a literal; `title` and `hint` are sentences for people.
struct Problem {
  int status = 400;
  const char* code = "bad-request";
  QString title;
  QString field;  // which part of the request; empty: none
  QString hint;   // what to do; empty: none
};

QJsonObject ToJson(const LimitsEntry& entry);
QJsonObject ToJson(const LedgerRow& row);
QJsonObject ToJson(const AgentFacts& agent);
QJsonObject ToJson(const UsageDays& days);  // {"2009-03-05": 45}
QJsonObject ToJson(const ServerStatus& status, const HouseholdFacts& household);

// RFC 3339 with the offset that the time has in its zone.
QString ToRfc3339(const QDateTime& time);

ControlAnswer MakeAnswer(int status, const QJsonObject& object);
ControlAnswer MakeAnswer(const Problem& problem);

}  // namespace vardell::server
