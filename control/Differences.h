// What a restore would change. Pure functions.
#pragma once

#include <QJsonObject>
#include <QString>
#include <vector>

#include "control/Backup.h"
#include "control/SettingsKeys.h"

namespace vardell::control {

struct ListDifferences {
  qsizetype removed = 0;
  qsizetype added = 0;
  qsizetype changed = 0;
  qsizetype same = 0;
  bool any() const { return removed + added + changed > 0; }
};

struct Differences {
  ListDifferences limits;  // credit is part of one
  ListDifferences days;    // of a person, with all that was used
  std::vector<SettingChange> settings;
  ListDifferences applications;
  bool any() const { return limits.any() || days.any() || !settings.empty() || applications.any(); }
};

// `limits`: the Server's answer to a check.
Differences Compare(const Backup& present, const Backup& wanted, const QJsonObject& limits);

QString DifferencesText(const Differences& differences);
QJsonObject DifferencesJson(const Differences& differences);

}  // namespace vardell::control
