#include "control/SettingsCommands.h"

#include <QJsonArray>

#include "control/RestoreNote.h"
#include "control/SettingsFile.h"
#include "control/SettingsKeys.h"
#include "control/Tables.h"

namespace vardell::control {
namespace {

struct Wanted {
  QVariantMap settings;
  QString problem;
};

// A value that stands in the file and is not what an agent takes there.
bool IsIgnored(const ShownSetting& shown, const QVariant& stored) {
  return shown.isDefault && stored.isValid();
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

QString ChangesText(const std::vector<SettingChange>& changes) {
  if (changes.empty()) return QStringLiteral("Nothing changed: it is so already.\n");
  std::vector<QStringList> rows{
      {QStringLiteral("KEY"), QStringLiteral("BEFORE"), QStringLiteral("NOW")}};
  for (const SettingChange& change : changes)
    rows.push_back({change.key, change.before, change.after});
  return AlignedTable(rows) + QLatin1String(kWhenSettingsCount);
}

QJsonObject ChangesJson(const std::vector<SettingChange>& changes) {
  return {{QStringLiteral("path"), SettingsPath()},
          {QStringLiteral("changed"), SettingChangesJson(changes)}};
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
  const std::vector<SettingChange> changes = CompareSettings(before, after);
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
