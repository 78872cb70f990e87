// usage.
#pragma once

#include <QDate>

#include "control/Commands.h"

namespace vardell::control {

Result ShowUsage(const Command& command, const HttpClient& server, Terminal& terminal);

// The day that it is there; of a zone that nobody knows, the day here.
QDate DayIn(const QString& zone, const QDateTime& now);

}  // namespace vardell::control
