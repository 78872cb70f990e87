// The Server's JSON as text for people. Whatever a terminal would obey is replaced: names and
// reasons come from other people. Times are local. Pure functions.
#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <vector>

namespace vardell::control {

// The first row is the header; numbers (all cells below the header) are aligned to the right.
QString AlignedTable(const std::vector<QStringList>& rows);

QString StatusText(const QJsonObject& status);
QString LimitsTable(const QJsonArray& limits);  // one line for each limit
QString LimitsSheet(const QJsonObject& limit);  // one line for each key
QString CreditTable(const QJsonArray& limits);
QString LedgerTable(const QJsonArray& rows);

// Without control characters and what else would turn or hide text on a terminal.
QString Printable(const QString& text);

}  // namespace vardell::control
