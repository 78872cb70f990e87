#include "server/Backup.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <algorithm>
#include <initializer_list>
#include <limits>
#include <map>

#include "limits/LimitsDictionary.h"
#include "limits/LimitsKeys.h"
#include "server/ControlReading.h"
#include "server/LimitsKeys.h"
#include "server/LimitsOptions.h"

namespace vardell::server {
namespace {

const QLatin1String kOptions("options");
constexpr std::int64_t kMostMinutes = std::numeric_limits<std::int32_t>::max();

bool IsKeyOf(const LimitsKey& key, const QString& identifier) {
  return key.value != LimitsValue::Credit && (key.ofQuota || !IsGlobalSettings(identifier));
}

// --- Writing.

// Only what is not usual; so there is no null, which property lists, as which clients keep backups,
// do not have.
QJsonObject OptionsOf(const LimitsEntry& entry) {
  const QJsonObject usual = OptionsJson(LimitOptions());
  QJsonObject options = OptionsJson(entry.options);
  for (const QString& name : usual.keys()) {
    if (options.value(name) == usual.value(name)) options.remove(name);
  }
  return options;
}

QJsonObject LimitsJson(const LimitsEntry& entry) {
  const QVariantMap all = MakeLimitsDictionary(entry.limits);
  QJsonObject keys;
  for (const LimitsKey& key : AllLimitsKeys()) {
    const QString name = QLatin1String(key.name);
    if (IsKeyOf(key, entry.identifier)) keys.insert(name, QJsonValue::fromVariant(all.value(name)));
  }
  QJsonObject object{{QStringLiteral("user"), entry.user},
                     {QStringLiteral("identifier"), entry.identifier},
                     {QStringLiteral("limits"), keys},
                     {QStringLiteral("credit"), qint64{entry.credit}}};
  if (const QJsonObject options = OptionsOf(entry); !options.isEmpty()) {
    object.insert(kOptions, options);
  }
  return object;
}

QJsonObject UsageJson(const UsageEntry& entry) {
  return {{QStringLiteral("user"), entry.user},
          {QStringLiteral("identifier"), entry.identifier},
          {QStringLiteral("days"), ToJson(entry.days)}};
}

// Entry by entry: the whole as one tree of values takes many times the text's memory.
template <typename Entry>
QByteArray ArrayText(const std::vector<Entry>& entries, QJsonObject (*toJson)(const Entry&)) {
  QByteArray text;
  for (const Entry& entry : entries) {
    text += text.isEmpty() ? '[' : ',';
    text += QJsonDocument(toJson(entry)).toJson(QJsonDocument::Compact);
  }
  return text.isEmpty() ? QByteArray("[]") : text + ']';
}

// --- Reading. `path` names what is looked at.

Problem Wrong(const QString& path, const QString& what, const char* code = "bad-value") {
  return {422, code, QStringLiteral("\"%1\" %2").arg(path, what), path,
          QStringLiteral("Nothing was changed: correct this in the file, or take another backup")};
}

QString PathOf(const char* array, qsizetype index, const QString& field = {}) {
  const QString entry = QStringLiteral("%1[%2]").arg(QLatin1String(array)).arg(index);
  return field.isEmpty() ? entry : entry + QLatin1Char('.') + field;
}

QString Below(const QString& path, const QString& field) {
  return path.isEmpty() ? field : path + QLatin1Char('.') + field;
}

// An object with these fields and no other.
std::optional<Problem> CheckFields(const QString& path, const QJsonValue& value,
                                   std::initializer_list<const char*> fields) {
  if (!value.isObject()) return Wrong(path, QStringLiteral("must be an object"));
  const QJsonObject object = value.toObject();
  for (const char* field : fields) {
    if (object.contains(QLatin1String(field))) continue;
    return Wrong(Below(path, QLatin1String(field)), QStringLiteral("is missing"));
  }
  for (const QString& name : object.keys()) {
    const auto isName = [&](const char* field) { return name == QLatin1String(field); };
    if (std::any_of(fields.begin(), fields.end(), isName)) continue;
    return Wrong(Below(path, name), QStringLiteral("is no part of a backup"));
  }
  return std::nullopt;
}

// Which entry of an array has a name, to find those that are there twice.
using Seen = std::map<std::pair<QString, QString>, QString>;

std::optional<Problem> ReadNames(const QString& path, const QJsonObject& object, Seen* seen,
                                 QString* user, QString* identifier) {
  const std::pair<const char*, QString*> fields[] = {{"user", user}, {"identifier", identifier}};
  for (const auto& [field, text] : fields) {
    const QJsonValue value = object.value(QLatin1String(field));
    const QString fieldPath = Below(path, QLatin1String(field));
    if (!value.isString()) return Wrong(fieldPath, QStringLiteral("must be a text"));
    if (const auto problem = NameProblem(value.toString())) return Wrong(fieldPath, *problem);
    *text = value.toString();
  }
  const auto [first, isNew] = seen->try_emplace({*user, *identifier}, path);
  if (isNew) return std::nullopt;
  return Wrong(
      Below(path, QStringLiteral("identifier")),
      QStringLiteral("is there twice for this user: %1 has it already").arg(first->second));
}

std::optional<Problem> ReadKeys(const QString& path, const QJsonValue& value, LimitsEntry* entry) {
  const QString keysPath = Below(path, QStringLiteral("limits"));
  if (!value.isObject()) return Wrong(keysPath, QStringLiteral("must be an object"));
  const QVariantMap keys = value.toObject().toVariantMap();
  if (keys.contains(QStringLiteral("Credit"))) {
    return Wrong(Below(keysPath, QStringLiteral("Credit")),
                 QStringLiteral("stands beside the limits, as \"credit\""), "unknown-key");
  }
  LimitsChange change;
  if (const auto problem = ApplyLimitsKeys(entry->identifier, NewLimits(), keys, &change)) {
    return Wrong(Below(keysPath, problem->field), problem->message,
                 problem->unknownKey ? "unknown-key" : "bad-value");
  }
  for (const LimitsKey& key : AllLimitsKeys()) {
    const QString name = QLatin1String(key.name);
    if (!IsKeyOf(key, entry->identifier) || keys.contains(name)) continue;
    return Wrong(Below(keysPath, name), QStringLiteral("is missing"));
  }
  entry->limits = change.limits;
  return std::nullopt;
}

std::optional<Problem> ReadOptions(const QString& path, const QJsonValue& value,
                                   LimitsEntry* entry) {
  const QString optionsPath = Below(path, kOptions);
  if (!value.isObject()) return Wrong(optionsPath, QStringLiteral("must be an object"));
  const QVariantMap options = value.toObject().toVariantMap();
  const auto problem = ApplyOptions(entry->identifier, options, &entry->options);
  if (!problem) return std::nullopt;
  return Wrong(Below(optionsPath, problem->field), problem->message,
               problem->unknownKey ? "unknown-key" : "bad-value");
}

std::optional<Problem> ReadLimits(const QString& path, const QJsonValue& value, Seen* seen,
                                  LimitsEntry* entry) {
  QJsonObject object = value.toObject();
  const QJsonValue options = object.take(kOptions);
  const QJsonValue rest = value.isObject() ? QJsonValue(object) : value;
  if (auto problem = CheckFields(path, rest, {"user", "identifier", "limits", "credit"})) {
    return problem;
  }
  if (auto problem = ReadNames(path, object, seen, &entry->user, &entry->identifier)) {
    return problem;
  }
  if (auto problem = ReadKeys(path, object.value(QLatin1String("limits")), entry)) return problem;
  if (!options.isUndefined()) {
    if (auto problem = ReadOptions(path, options, entry)) return problem;
  }
  const QString creditPath = Below(path, QStringLiteral("credit"));
  const auto credit = WholeNumber(object.value(QLatin1String("credit")));
  if (!credit) return Wrong(creditPath, QStringLiteral("must be a whole number"));
  if (const auto problem = CreditProblem(*credit)) return Wrong(creditPath, *problem);
  if (*credit != 0 && IsGlobalSettings(entry->identifier)) {
    return Wrong(creditPath, QStringLiteral("must be 0: the global settings have no credit"));
  }
  entry->credit = *credit;
  return std::nullopt;
}

std::optional<Problem> ReadUsage(const QString& path, const QJsonValue& value, Seen* seen,
                                 UsageEntry* entry) {
  if (auto problem = CheckFields(path, value, {"user", "identifier", "days"})) return problem;
  const QJsonObject object = value.toObject();
  if (auto problem = ReadNames(path, object, seen, &entry->user, &entry->identifier)) {
    return problem;
  }
  const QString daysPath = Below(path, QStringLiteral("days"));
  if (!object.value(QLatin1String("days")).isObject()) {
    return Wrong(daysPath, QStringLiteral("must be an object"));
  }
  const QJsonObject days = object.value(QLatin1String("days")).toObject();
  for (auto day = days.begin(); day != days.end(); ++day) {
    const auto date = DayFrom(day.key());
    if (!date) {
      return Wrong(Below(daysPath, day.key()), QStringLiteral("must be a day like 2009-03-05"));
    }
    const auto minutes = WholeNumber(day.value());
    if (!minutes || *minutes < 0 || *minutes > kMostMinutes) {
      return Wrong(Below(daysPath, day.key()),
                   QStringLiteral("must be whole minutes from 0 to %1").arg(kMostMinutes));
    }
    if (*minutes != 0) entry->days.emplace_hint(entry->days.end(), *date, *minutes);
  }
  return std::nullopt;
}

template <typename Entry>
std::optional<Problem> ReadArray(const char* name, const QJsonObject& whole,
                                 std::optional<Problem> (*readEntry)(const QString&,
                                                                     const QJsonValue&, Seen*,
                                                                     Entry*),
                                 std::vector<Entry>* entries) {
  const QJsonValue value = whole.value(QLatin1String(name));
  if (!value.isArray()) return Wrong(QLatin1String(name), QStringLiteral("must be an array"));
  const QJsonArray array = value.toArray();
  Seen seen;
  for (qsizetype i = 0; i < array.size(); ++i) {
    if (auto problem = readEntry(PathOf(name, i), array[i], &seen, &entries->emplace_back())) {
      return problem;
    }
  }
  return std::nullopt;
}

std::optional<Problem> CheckWhole(const QJsonObject& whole) {
  const QString format = QStringLiteral("format");
  if (auto problem = CheckFields({}, whole, {"format", "made", "server", "limits", "usage"})) {
    return problem;
  }
  if (WholeNumber(whole.value(format)) != kBackupFormat) {
    Problem problem = Wrong(format, QStringLiteral("must be %1").arg(kBackupFormat));
    problem.hint = QStringLiteral(
        "Nothing was changed: restore this backup with the version of "
        "the Server that made it");
    return problem;
  }
  for (const char* field : {"made", "server"}) {
    if (whole.value(QLatin1String(field)).isString()) continue;
    return Wrong(QLatin1String(field), QStringLiteral("must be a text"));
  }
  return std::nullopt;
}

}  // namespace

QByteArray WriteBackup(const Backup& backup, const QDateTime& made, const QString& version) {
  const QJsonObject head{{QStringLiteral("format"), kBackupFormat},
                         {QStringLiteral("made"), ToRfc3339(made)},
                         {QStringLiteral("server"), version}};
  QByteArray text = QJsonDocument(head).toJson(QJsonDocument::Compact);
  text.chop(1);
  text += ",\"limits\":" + ArrayText(backup.limits, LimitsJson);
  text += ",\"usage\":" + ArrayText(backup.usage, UsageJson) + "}\n";
  return text;
}

std::optional<Problem> ReadBackup(const QByteArray& bytes, Backup* backup) {
  QJsonParseError error;
  const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
  if (error.error != QJsonParseError::NoError) {
    return Problem{400,
                   "bad-request",
                   QStringLiteral("The body is not JSON: %1, at byte %2")
                       .arg(error.errorString())
                       .arg(error.offset),
                   {},
                   {}};
  }
  if (!document.isObject()) {
    return Problem{400, "bad-request", QStringLiteral("The body is not a JSON object"), {}, {}};
  }
  const QJsonObject whole = document.object();
  if (auto problem = CheckWhole(whole)) return problem;
  Backup read;
  if (auto problem = ReadArray("limits", whole, ReadLimits, &read.limits)) return problem;
  if (auto problem = ReadArray("usage", whole, ReadUsage, &read.usage)) return problem;
  *backup = std::move(read);
  return std::nullopt;
}

}  // namespace vardell::server
