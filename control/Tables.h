// The Server's JSON as text for people. Whatever a terminal would obey is replaced: names and
// reasons come from other people. Times are local. Pure functions.
#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include "control/TextTable.h"

namespace vardell::control {

QString StatusText(const QJsonObject& status, const QString& ownVersion);
// What a store that is away means, and what to do; empty while it is not.
QString AwayText(const QJsonObject& status);
QString AgentsTable(const QJsonArray& agents);
QString LimitsTable(const QJsonArray& limits);  // one line for each limit
QString LimitsSheet(const QJsonObject& limit);  // one line for each key
// The keys whose values differ, with both; empty where there is none.
QString ChangesTable(const QJsonObject& before, const QJsonObject& after);
bool IsHome(const QJsonObject& limit);  // of the home folder
// Of top-ups that are to come and have no time.
bool HasNoNextTopUp(const QJsonObject& limit);
// Without home folders, which have no credit.
QString CreditTable(const QJsonArray& limits);
QString LedgerTable(const QJsonArray& rows);

}  // namespace vardell::control
