// What administrators can choose for a limit beyond its keys, which agents know nothing of; as JSON
//
//   {"rollOver": false, "rollOverCap": null, "unlimited": false, "parallel": "sum",
//    "scope": "user", "schedule": null}
//
// with a schedule in the form of server/ScheduleJson.h. Pure.
#pragma once

#include <QJsonObject>
#include <QString>
#include <QVariant>
#include <optional>

#include "server/LimitOptions.h"
#include "server/LimitsKeys.h"

namespace vardell::server {

QJsonObject OptionsJson(const LimitOptions& options);

bool IsOption(const QString& name);

// Changes those that are named, or none and tells the first problem, in the names' order; its field
// may be deep inside of one: "schedule.days.monday[1].stop". The cap is whole minutes from 0 to
// 2^31-1, or null; a schedule has at most kMaxScheduleBytes, or is null. The global settings have
// no options.
[[nodiscard]] std::optional<KeyProblem> ApplyOptions(const QString& identifier,
                                                     const QVariantMap& changes,
                                                     LimitOptions* options);

}  // namespace vardell::server
