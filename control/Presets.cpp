#include "control/Presets.h"

#include <QJsonArray>
#include <algorithm>

#include "control/LimitsKeys.h"
#include "control/TextTable.h"

namespace vardell::control {
namespace {

QJsonObject Hours(const QString& day, int start, int stop) {
  return {{day + QStringLiteral(" Curfew Enabled"), true},
          {day + QStringLiteral(" start"), start},
          {day + QStringLiteral(" stop"), stop}};
}

QJsonObject Both(QJsonObject keys, const QJsonObject& more) {
  for (auto key = more.begin(); key != more.end(); ++key) keys.insert(key.key(), key.value());
  return keys;
}

QString HoursText(const QJsonObject& keys, const QString& day) {
  if (!keys.contains(day + QStringLiteral(" start"))) return QStringLiteral("as they are");
  return ClockText(keys[day + QStringLiteral(" start")].toInt()) + QStringLiteral(" to ") +
         ClockText(keys[day + QStringLiteral(" stop")].toInt());
}

}  // namespace

const std::vector<Preset>& Presets() {
  const QString weekDays = QStringLiteral("WD");
  const QString weekEnds = QStringLiteral("WE");
  static const std::vector<Preset> kPresets = {
      {QStringLiteral("school-day"), QStringLiteral("after school, until the evening"),
       Hours(weekDays, 15 * 60, 19 * 60 + 30)},
      {QStringLiteral("weekend"), QStringLiteral("from after breakfast, and longer"),
       Hours(weekEnds, 9 * 60, 21 * 60)},
      {QStringLiteral("bedtime"), QStringLiteral("any time but the night"),
       Both(Hours(weekDays, 7 * 60, 20 * 60), Hours(weekEnds, 7 * 60, 22 * 60))},
  };
  return kPresets;
}

const Preset* FindPreset(const QString& name) {
  const auto found = std::find_if(Presets().begin(), Presets().end(),
                                  [&](const Preset& preset) { return preset.name == name; });
  return found == Presets().end() ? nullptr : &*found;
}

QString PresetsTable() {
  std::vector<QStringList> rows{{QStringLiteral("PRESET"), QStringLiteral("WEEK DAYS"),
                                 QStringLiteral("WEEK-ENDS"), QStringLiteral("ALLOWS")}};
  for (const Preset& preset : Presets()) {
    rows.push_back({preset.name, HoursText(preset.limits, QStringLiteral("WD")),
                    HoursText(preset.limits, QStringLiteral("WE")), preset.summary});
  }
  return AlignedTable(rows);
}

QJsonObject PresetsJson() {
  QJsonArray presets;
  for (const Preset& preset : Presets()) {
    presets.append(QJsonObject{{QStringLiteral("name"), preset.name},
                               {QStringLiteral("summary"), preset.summary},
                               {QStringLiteral("limits"), preset.limits}});
  }
  return {{QStringLiteral("presets"), presets}};
}

}  // namespace vardell::control
