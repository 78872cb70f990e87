#include "control/Differences.h"

#include <QMap>
#include <QStringList>

#include "control/TextTable.h"

namespace vardell::control {
namespace {

// Each by a name of its own.
using Entries = QMap<QString, QVariant>;

Entries DaysOf(const Backup& backup) {
  QMap<QString, QVariantMap> used;
  const QVariantList usage = backup.household.value(QStringLiteral("usage")).toList();
  for (const QVariant& value : usage) {
    const QVariantMap entry = value.toMap();
    const QString user = entry.value(QStringLiteral("user")).toString() + QChar(0);
    const QString identifier = entry.value(QStringLiteral("identifier")).toString();
    const QVariantMap days = entry.value(QStringLiteral("days")).toMap();
    for (auto day = days.begin(); day != days.end(); ++day) {
      used[user + day.key()].insert(identifier, day.value());
    }
  }
  Entries entries;
  for (auto day = used.begin(); day != used.end(); ++day) entries.insert(day.key(), *day);
  return entries;
}

Entries RowsOf(const QVariantList& applications) {
  Entries entries;
  for (const QVariant& row : applications) {
    entries.insert(row.toMap().value(QStringLiteral("Identifier")).toString(), row);
  }
  return entries;
}

ListDifferences CompareEntries(const Entries& present, const Entries& wanted) {
  ListDifferences differences;
  for (auto one = wanted.begin(); one != wanted.end(); ++one) {
    const auto there = present.constFind(one.key());
    if (there == present.constEnd()) {
      ++differences.added;
    } else {
      ++(*there == *one ? differences.same : differences.changed);
    }
  }
  differences.removed = present.size() - differences.same - differences.changed;
  return differences;
}

ListDifferences CompareApplications(const Backup& present, const Backup& wanted) {
  if (!wanted.applications || present.applications == wanted.applications) return {};
  return CompareEntries(RowsOf(present.applications.value_or(QVariantList())),
                        RowsOf(*wanted.applications));
}

QString Line(const char* what, const ListDifferences& differences) {
  QStringList parts;
  const auto add = [&](qsizetype count, const char* word) {
    if (count > 0) parts.append(QStringLiteral("%1 %2").arg(count).arg(QLatin1String(word)));
  };
  add(differences.removed, "removed");
  add(differences.added, "added");
  add(differences.changed, "changed");
  if (!differences.any()) parts.append(QStringLiteral("no change"));
  return QStringLiteral("%1 %2\n").arg(QLatin1String(what), parts.join(QStringLiteral(", ")));
}

QJsonObject ListJson(const ListDifferences& differences) {
  return {{QStringLiteral("removed"), differences.removed},
          {QStringLiteral("added"), differences.added},
          {QStringLiteral("changed"), differences.changed},
          {QStringLiteral("same"), differences.same}};
}

}  // namespace

Differences Compare(const Backup& present, const Backup& wanted, const QJsonObject& limits) {
  const auto count = [&](const char* field) { return limits[QLatin1String(field)].toInteger(); };
  return {{count("removed"), count("added"), count("changed"), count("same")},
          CompareEntries(DaysOf(present), DaysOf(wanted)),
          CompareSettings(present.settings, wanted.settings),
          CompareApplications(present, wanted)};
}

QString DifferencesText(const Differences& differences) {
  QString text = Line("Limits:      ", differences.limits) +
                 Line("Days of use: ", differences.days) +
                 Line("Applications:", differences.applications);
  if (differences.settings.empty()) return text + QStringLiteral("Settings:     no change\n");
  std::vector<QStringList> rows{
      {QStringLiteral("SETTING"), QStringLiteral("NOW"), QStringLiteral("IN THE BACKUP")}};
  for (const SettingChange& change : differences.settings) {
    rows.push_back({change.key, change.before, change.after});
  }
  return text + QLatin1Char('\n') + AlignedTable(rows);
}

QJsonObject DifferencesJson(const Differences& differences) {
  return {{QStringLiteral("limits"), ListJson(differences.limits)},
          {QStringLiteral("days"), ListJson(differences.days)},
          {QStringLiteral("settings"), SettingChangesJson(differences.settings)},
          {QStringLiteral("applications"), ListJson(differences.applications)}};
}

}  // namespace vardell::control
