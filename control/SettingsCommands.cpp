#include "control/SettingsCommands.h"

#include <QJsonArray>

#include "control/RestoreNote.h"
#include "control/SettingsFile.h"
#include "control/SettingsKeys.h"
#include "control/Tables.h"

namespace vardell::control {
namespace {

constexpr char kWhenTakenIn[] =
    "Agents read their settings when a session begins: who is logged in now gets this at the next "
    "login.\n";

struct Change {
  QString key;
  QString before;
  QString after;
};

struct Wanted {
  QVariantMap settings;
  QString problem;
};

QString ShownValue(const SettingKey& key, const QVariant& stored) {
  const ShownSetting shown = ShowSetting(key, stored);
  return shown.isDefault ? shown.value + QStringLiteral(" (default)") : shown.value;
}

// A value that stands in the file and is not what an agent takes there.
bool IsIgnored(const ShownSetting& shown, const QVariant& stored) {
  return shown.isDefault && stored.isValid();
}

QStringList UnknownKeys(const QVariantMap& settings) {
  QStringList keys;
  for (auto one = settings.begin(); one != settings.end(); ++one) {
    if (FindSettingKey(one.key()) == nullptr) keys.append(one.key());
  }
  return keys;
}

QString SettingsTable(const QVariantMap& settings) {
  std::vector<QStringList> rows{
      {QStringLiteral("KEY"), QStringLiteral("VALUE"), QStringLiteral("MEANING")}};
  for (const SettingKey& key : AllSettingKeys()) {
    const QVariant stored = settings.value(QLatin1String(key.name));
    const ShownSetting shown = ShowSetting(key, stored);
    const QString ignored =
        IsIgnored(shown, stored)
            ? QStringLiteral("; \"%1\" is stored, which agents ignore").arg(StoredText(stored))
            : QString();
    rows.push_back({QLatin1String(key.name), ShownValue(key, stored), shown.meaning + ignored});
  }
  for (const QString& key : UnknownKeys(settings)) {
    rows.push_back(
        {Printable(key), StoredText(settings[key]), QStringLiteral("not a setting of Vardell")});
  }
  return AlignedTable(rows);
}

QJsonObject SettingsJson(const QVariantMap& settings) {
  QJsonArray list;
  for (const SettingKey& key : AllSettingKeys()) {
    const QVariant stored = settings.value(QLatin1String(key.name));
    const ShownSetting shown = ShowSetting(key, stored);
    list.append(QJsonObject{{QStringLiteral("key"), QLatin1String(key.name)},
                            {QStringLiteral("value"), shown.value},
                            {QStringLiteral("default"), shown.isDefault},
                            {QStringLiteral("stored"), QJsonValue::fromVariant(stored)},
                            {QStringLiteral("meaning"), shown.meaning}});
  }
  QJsonObject unknown;
  for (const QString& key : UnknownKeys(settings)) {
    unknown.insert(key, QJsonValue::fromVariant(settings[key]));
  }
  return {{QStringLiteral("path"), SettingsPath()},
          {QStringLiteral("settings"), list},
          {QStringLiteral("unknown"), unknown}};
}

QString CheckKeys(const QStringList& keys, const QVariantMap& settings) {
  for (const QString& key : keys) {
    if (FindSettingKey(key) == nullptr && !settings.contains(key)) return UnknownSetting(key);
  }
  return {};
}

Wanted ParsePairs(const QMap<QString, QString>& pairs) {
  Wanted wanted;
  for (auto pair = pairs.begin(); pair != pairs.end(); ++pair) {
    const ParsedSetting parsed = ParseSetting(pair.key(), pair.value());
    if (!parsed.problem.isEmpty()) return {{}, parsed.problem};
    wanted.settings.insert(pair.key(), parsed.value);
  }
  return wanted;
}

std::vector<Change> Changes(const QVariantMap& before, const QVariantMap& after) {
  std::vector<Change> changes;
  for (const SettingKey& key : AllSettingKeys()) {
    const QVariant was = before.value(QLatin1String(key.name));
    const QVariant is = after.value(QLatin1String(key.name));
    if (was != is || was.typeId() != is.typeId()) {
      changes.push_back({QLatin1String(key.name), ShownValue(key, was), ShownValue(key, is)});
    }
  }
  for (const QString& key : UnknownKeys(before)) {
    if (after.contains(key)) continue;
    changes.push_back({Printable(key), StoredText(before[key]), QStringLiteral("-")});
  }
  return changes;
}

QString ChangesText(const std::vector<Change>& changes) {
  if (changes.empty()) return QStringLiteral("Nothing changed: it is so already.\n");
  std::vector<QStringList> rows{
      {QStringLiteral("KEY"), QStringLiteral("BEFORE"), QStringLiteral("NOW")}};
  for (const Change& change : changes) rows.push_back({change.key, change.before, change.after});
  return AlignedTable(rows) + QLatin1String(kWhenTakenIn);
}

QJsonObject ChangesJson(const std::vector<Change>& changes) {
  QJsonArray list;
  for (const Change& change : changes) {
    list.append(QJsonObject{{QStringLiteral("key"), change.key},
                            {QStringLiteral("before"), change.before},
                            {QStringLiteral("after"), change.after}});
  }
  return {{QStringLiteral("path"), SettingsPath()}, {QStringLiteral("changed"), list}};
}

// Of this change, then of what happened before.
QString Notice(const QVariantMap& changedTo, bool isRepaired) {
  QStringList lines;
  if (const std::optional<QString> account = MissingAccount(changedTo)) {
    lines.append(QStringLiteral("this machine has no account \"%1\" yet; it is stored all the same")
                     .arg(Printable(*account)));
  }
  if (isRepaired) {
    lines.append(
        QStringLiteral("a change of the settings that was interrupted was undone before this one"));
  }
  if (const QString restore = UnfinishedRestoreNotice(); !restore.isEmpty()) lines.append(restore);
  return lines.join(QLatin1Char('\n'));
}

Result Apply(const Command& command, SettingsEditor& editor, const QVariantMap& pairs) {
  if (!editor.problem().isEmpty()) return Failed(editor.problem());
  const QVariantMap before = editor.values();
  if (const QString problem = CheckKeys(command.keys, before); !problem.isEmpty()) {
    return Misused(problem);
  }
  QVariantMap after = before;
  after.insert(pairs);
  for (const QString& key : command.keys) after.remove(key);
  const std::vector<Change> changes = Changes(before, after);
  if (!changes.empty()) {
    if (const QString problem = editor.Write(after); !problem.isEmpty()) return Failed(problem);
  }
  return Done(command.json ? JsonText(ChangesJson(changes)) : ChangesText(changes));
}

}  // namespace

Result ShowSettings(const Command& command) {
  if (HasInterruptedChange()) {
    const SettingsEditor repairing;
    if (!repairing.problem().isEmpty()) {
      return Failed(QStringLiteral("a change of the settings was interrupted, and is still to be "
                                   "undone:\n") +
                    repairing.problem());
    }
  }
  const StoredSettings stored = ReadSettings();
  if (!stored.problem.isEmpty()) return Failed(stored.problem);
  Result result =
      Done(command.json ? JsonText(SettingsJson(stored.values)) : SettingsTable(stored.values));
  result.notice = UnfinishedRestoreNotice();
  return result;
}

Result ChangeSettings(const Command& command) {
  const Wanted wanted = ParsePairs(command.settings);
  if (!wanted.problem.isEmpty()) return Misused(wanted.problem);
  Result result;
  bool isRepaired = false;
  {
    SettingsEditor editor;
    result = Apply(command, editor, wanted.settings);
    isRepaired = editor.isRepaired();
  }
  result.notice = Notice(wanted.settings, isRepaired);
  return result;
}

}  // namespace vardell::control
