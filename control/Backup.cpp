#include "control/Backup.h"

#include <QSet>
#include <functional>
#include <utility>

#include "Common Sources/CompressedArchive.h"
#include "Common Sources/PropertyList.h"
#include "control/TextTable.h"

namespace vardell::control {
namespace {

constexpr QLatin1String kVersionKey{"Vardell Backup"};
constexpr QLatin1String kMadeKey{"Made"};
constexpr QLatin1String kMachineKey{"Machine"};
constexpr QLatin1String kHouseholdKey{"Household"};
constexpr QLatin1String kSettingsKey{"Settings"};
constexpr QLatin1String kApplicationsKey{"Applications"};
constexpr qsizetype kBlobHeaderBytes = 20;

BackupOrProblem Wrong(const QString& path, const char* what) {
  return {{}, QStringLiteral("\"%1\" %2").arg(path, QLatin1String(what))};
}

bool IsText(const QVariant& value) {
  return value.typeId() == QMetaType::QString;
}

bool IsDictionary(const QVariant& value) {
  return value.typeId() == QMetaType::QVariantMap;
}

// The path of the first entry of an array that is not as it should be; empty for none.
QString FindWrongEntry(const QVariantMap& from, const QString& array,
                       const std::function<bool(const QVariantMap&)>& isRight) {
  const QVariant value = from.value(array);
  if (value.typeId() != QMetaType::QVariantList) return array;
  const QVariantList entries = value.toList();
  for (qsizetype i = 0; i < entries.size(); ++i) {
    if (IsDictionary(entries[i]) && isRight(entries[i].toMap())) continue;
    return QStringLiteral("%1[%2]").arg(array).arg(i);
  }
  return {};
}

bool HasNames(const QVariantMap& entry) {
  return IsText(entry.value(QStringLiteral("user"))) &&
         IsText(entry.value(QStringLiteral("identifier")));
}

QString FindWrongIn(const QVariantMap& household) {
  const auto isLimit = [](const QVariantMap& entry) {
    return HasNames(entry) && IsDictionary(entry.value(QStringLiteral("limits"))) &&
           NumberAsDouble(entry.value(QStringLiteral("credit")));
  };
  const auto isUsage = [](const QVariantMap& entry) {
    return HasNames(entry) && IsDictionary(entry.value(QStringLiteral("days")));
  };
  const QString wrong = FindWrongEntry(household, QStringLiteral("limits"), isLimit);
  return wrong.isEmpty() ? FindWrongEntry(household, QStringLiteral("usage"), isUsage) : wrong;
}

bool IsCatalogueRow(const QVariantMap& row) {
  for (const QVariant& value : row) {
    if (!IsText(value)) return false;
  }
  return row.contains(QStringLiteral("Identifier"));
}

// A zlib stream of the level that archives are packed with stands behind the header.
bool LooksPacked(const QByteArray& bytes) {
  return bytes.mid(kBlobHeaderBytes, 2) == QByteArray("\x78\x9c", 2);
}

}  // namespace

QVariantMap MakeDocument(const Backup& backup) {
  QVariantMap document{{kVersionKey, qlonglong{kBackupVersion}},
                       {kMadeKey, backup.made},
                       {kMachineKey, backup.machine},
                       {kHouseholdKey, backup.household},
                       {kSettingsKey, backup.settings}};
  if (backup.applications) document.insert(kApplicationsKey, *backup.applications);
  return document;
}

BackupOrProblem ParseDocument(const QVariant& document) {
  const QVariantMap map = document.toMap();
  const QVariant version = map.value(kVersionKey);
  if (version.typeId() != QMetaType::LongLong) return {{}, QStringLiteral("it is no backup")};
  if (version.toLongLong() != kBackupVersion) {
    return {{},
            QStringLiteral("it is of version %1, and this vardellctl knows version %2 alone")
                .arg(version.toLongLong())
                .arg(kBackupVersion)};
  }
  const QVariant made = map.value(kMadeKey);
  if (made.typeId() != QMetaType::QDateTime) return Wrong(kMadeKey, "is no date");
  if (!IsText(map.value(kMachineKey))) return Wrong(kMachineKey, "is no text");
  if (!IsDictionary(map.value(kHouseholdKey))) return Wrong(kHouseholdKey, "is no dictionary");
  if (!IsDictionary(map.value(kSettingsKey))) return Wrong(kSettingsKey, "is no dictionary");
  Backup backup{made.toDateTime(), map.value(kMachineKey).toString(),
                map.value(kHouseholdKey).toMap(), map.value(kSettingsKey).toMap(), std::nullopt};
  if (const QString wrong = FindWrongIn(backup.household); !wrong.isEmpty()) {
    return Wrong(QString(kHouseholdKey) + QLatin1Char('.') + wrong, "is not as it should be");
  }
  if (!WritePropertyListXml(backup.settings)) return Wrong(kSettingsKey, "cannot be stored");
  if (!map.contains(kApplicationsKey)) return {std::move(backup), {}};
  if (const QString wrong = FindWrongEntry(map, kApplicationsKey, IsCatalogueRow);
      !wrong.isEmpty()) {
    return Wrong(wrong, "is not as it should be");
  }
  backup.applications = map.value(kApplicationsKey).toList();
  return {std::move(backup), {}};
}

QByteArray PackBackup(const Backup& backup) {
  return CreateCompressedArchive(MakeDocument(backup), kArchiveKeyed);
}

BackupOrProblem UnpackBackup(const QByteArray& bytes, const QString& name) {
  if (!LooksPacked(bytes)) return {{}, QStringLiteral("%1 is no backup of Vardell").arg(name)};
  const QVariant document = CopyObjectFromCompressedArchive(bytes, kArchiveKeyed);
  if (!document.isValid()) {
    return {{},
            QStringLiteral("%1 is damaged: it was cut short, or changed after it was made.\n"
                           "Take another backup.")
                .arg(name)};
  }
  BackupOrProblem parsed = ParseDocument(document);
  if (!parsed.backup) {
    parsed.problem = QStringLiteral("%1 cannot be restored: %2").arg(name, parsed.problem);
  }
  return parsed;
}

BackupCounts CountsOf(const Backup& backup) {
  BackupCounts counts;
  QSet<QString> people;
  QSet<std::pair<QString, QString>> days;
  const QVariantList limits = backup.household.value(QStringLiteral("limits")).toList();
  for (const QVariant& entry : limits) {
    people.insert(entry.toMap().value(QStringLiteral("user")).toString());
  }
  const QVariantList usage = backup.household.value(QStringLiteral("usage")).toList();
  for (const QVariant& value : usage) {
    const QVariantMap entry = value.toMap();
    const QString user = entry.value(QStringLiteral("user")).toString();
    people.insert(user);
    const QVariantMap itsDays = entry.value(QStringLiteral("days")).toMap();
    for (auto day = itsDays.begin(); day != itsDays.end(); ++day) days.insert({user, day.key()});
  }
  return {limits.size(), people.size(), days.size(), backup.settings.size()};
}

QString CountsText(const BackupCounts& counts) {
  return QStringLiteral("%1 of %2, %3 of use, %4")
      .arg(Counted(counts.limits, QStringLiteral("limit"), QStringLiteral("limits")),
           Counted(counts.people, QStringLiteral("person"), QStringLiteral("people")),
           Counted(counts.days, QStringLiteral("day"), QStringLiteral("days")),
           Counted(counts.settings, QStringLiteral("setting"), QStringLiteral("settings")));
}

QString Counted(qsizetype count, const QString& one, const QString& many) {
  return QStringLiteral("%1 %2").arg(count).arg(count == 1 ? one : many);
}

}  // namespace vardell::control
