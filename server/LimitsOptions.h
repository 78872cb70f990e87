// What administrators can choose for a limit beyond its keys, which agents know nothing of; as JSON
// {"rollOver": false, "rollOverCap": null}. Pure.
#pragma once

#include <QJsonObject>
#include <QString>
#include <QVariant>
#include <optional>

#include "server/LimitsKeys.h"
#include "server/TopUps.h"

namespace vardell::server {

QJsonObject OptionsJson(const TopUpOptions& options);

bool IsOption(const QString& name);

// Changes those that are named, or none and tells the first problem, in the names' order. The cap
// is whole minutes from 0 to 2^31-1, or null. The global settings have no options.
[[nodiscard]] std::optional<KeyProblem> ApplyOptions(const QString& identifier,
                                                     const QVariantMap& changes,
                                                     TopUpOptions* options);

}  // namespace vardell::server
