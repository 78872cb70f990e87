// What one should know of a limit that has just been made or changed, besides what has changed.
// `before` is empty for a new one. Main thread; a new limit asks the machine's user database and
// reads its list of applications, which may block.
#pragma once

#include <QJsonObject>
#include <QString>

namespace vardell::control {

// From when it counts, where agents do not learn of it within a minute; else empty.
QString WhenItCounts(const QJsonObject& before, const QJsonObject& after);

// A line each; empty for none.
QString LimitNotices(const QJsonObject& before, const QJsonObject& after);

// What keeps top-ups from coming, and what to do; empty where nothing does.
QString TopUpNotice(const QJsonObject& limit);

}  // namespace vardell::control
