// Limits as a property-list dictionary, as the Server sends them.
// Keys and what an absent one means: "NextAutoUpdate" 0, "Credit" 0, "Report Credit" false,
// "Enabled" false, "AutoUpdateCoeff" 1, "AutoUpdateValue" 0, "WE Coeff" 0, "WE Value" 0,
// "WD start" 0, "WD stop" 1439, "WE start" 0, "WE stop" 1439, "WD Curfew Enabled" false,
// "WE Curfew Enabled" false, "DQ Enabled" false, "DQ Value" 0.
#pragma once

#include <QVariant>

#include "link/LimitsRecord.h"

namespace vardell {

struct ServerLink;

// Fills `outRecord`; untouched when either argument is null. Values of a wrong type count as
// absent.
void ParseLimitsDictionary(const QVariantMap* dictionary, LimitsRecord* outRecord);

// The dictionary that parses into `record`: all sixteen keys.
QVariantMap MakeLimitsDictionary(const LimitsRecord& record);

// Asks the Server; without an answer the record of an empty dictionary. Blocks.
LimitsRecord FetchLimits(ServerLink& link, const QString& userName, const QString& appIdentifier);

}  // namespace vardell
