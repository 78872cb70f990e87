// Sets of keys that families often want together. Pure functions.
#pragma once

#include <QJsonObject>
#include <QString>
#include <vector>

namespace vardell::control {

struct Preset {
  QString name;
  QString summary;     // one line
  QJsonObject limits;  // the keys that it sets
};

const std::vector<Preset>& Presets();

// Null where there is none of that name.
const Preset* FindPreset(const QString& name);

QString PresetsTable();
QJsonObject PresetsJson();

}  // namespace vardell::control
