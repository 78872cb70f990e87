#include "limits/ApplicationsCatalogue.h"

#include <QSet>
#include <algorithm>
#include <vector>

#include "Common Sources/XmlText.h"
#include "limits/ApplicationIdentifier.h"

namespace vardell {
namespace {

constexpr QLatin1String kUrl("URL");
constexpr QLatin1String kName("Name");
constexpr QLatin1String kIdentifier("Identifier");
constexpr QLatin1String kComputerPath("/System/Library/CoreServices/Finder.app");
constexpr int kDepth = 2;

std::optional<QString> TextOf(const QVariantMap& row, QLatin1String key) {
  const QVariant value = row.value(key);
  return value.typeId() == QMetaType::QString ? std::optional(value.toString()) : std::nullopt;
}

// Rows while they are put together.
class Rows {
 public:
  Rows() = default;
  explicit Rows(const QVariantList& rows) {
    for (const QVariant& row : rows) Append(row);
  }

  bool Contains(const QString& identifier) const {
    return identifiers_.contains(identifier.toCaseFolded());
  }
  void Append(const QVariant& row) {
    const QVariantMap map = row.toMap();
    const QString identifier = TextOf(map, kIdentifier).value_or(QString()).toCaseFolded();
    const std::optional<QString> name = TextOf(map, kName);
    rows_.push_back({name.has_value(), name.value_or(QString()).toCaseFolded(), identifier, row});
    identifiers_.insert(identifier);
  }
  void AppendNew(const ApplicationInfo& application) {
    const std::optional<QVariantMap> row = MakeCatalogueRow(application);
    if (row && !Contains(row->value(kIdentifier).toString())) Append(*row);
  }

  QVariantList Sorted(const QVariantMap& first) {
    const auto named = std::stable_partition(rows_.begin(), rows_.end(),
                                             [](const Row& row) { return row.hasName; });
    std::stable_sort(rows_.begin(), named, [](const Row& one, const Row& other) {
      const int names = one.name.compare(other.name);
      return names != 0 ? names < 0 : one.identifier < other.identifier;
    });
    QVariantList sorted;
    sorted.reserve(static_cast<qsizetype>(rows_.size()) + 1);
    sorted.push_back(first);
    for (const Row& row : rows_) sorted.push_back(row.value);
    return sorted;
  }

 private:
  struct Row {
    bool hasName = false;
    QString name;  // this and the identifier in one letter case
    QString identifier;
    QVariant value;
  };
  std::vector<Row> rows_;
  // The computer's row is made at the end.
  QSet<QString> identifiers_{QLatin1String(kLoginWindowIdentifier)};
};

void ScanFolder(InstalledApplications& installed, const QString& folder, int depth, Rows& rows) {
  for (const InstalledItem& item : installed.Items(folder)) {
    if (item.application) {
      rows.AppendNew(*item.application);
    } else if (item.isContainer && depth < kDepth) {
      ScanFolder(installed, item.path, depth + 1, rows);
    }
  }
}

Rows ScanApplications(InstalledApplications& installed) {
  Rows rows;
  for (const QString& folder : installed.Folders()) ScanFolder(installed, folder, 1, rows);
  return rows;
}

QString StorableName(QString name) {
  if (IsXmlText(name)) return name;
  for (QChar& c : name) {
    if (!IsXmlText(QStringView(&c, 1))) c = QChar::ReplacementCharacter;
  }
  return name;
}

QVariantMap ComputerRow(InstalledApplications& installed) {
  return {{kUrl, kComputerPath},
          {kName, StorableName(installed.MachineName())},
          {kIdentifier, QLatin1String(kLoginWindowIdentifier)}};
}

QVariantList StoredCatalogue(ApplicationPreferences& preferences) {
  return preferences.Value(QLatin1String(kApplicationsKey)).value_or(QVariant()).toList();
}

void Store(InstalledApplications& installed, ApplicationPreferences& preferences, Rows rows) {
  preferences.SetValue(QLatin1String(kApplicationsKey), rows.Sorted(ComputerRow(installed)));
}

}  // namespace

bool HasApplicationsCatalogue(ApplicationPreferences& preferences) {
  const std::optional<QVariant> stored = preferences.Value(QLatin1String(kApplicationsKey));
  return stored && stored->typeId() == QMetaType::QVariantList;
}

void BuildApplicationsCatalogue(InstalledApplications& installed,
                                ApplicationPreferences& preferences) {
  if (HasApplicationsCatalogue(preferences)) return;
  Store(installed, preferences, ScanApplications(installed));
  (void)preferences.Synchronize();
}

QVariantList CopyApplicationsCatalogue(InstalledApplications& installed,
                                       ApplicationPreferences& preferences) {
  BuildApplicationsCatalogue(installed, preferences);
  return StoredCatalogue(preferences);
}

bool CatalogueContainsIdentifier(const QVariantList& catalogue, const QString& identifier) {
  const QString wanted = identifier.toCaseFolded();
  return std::any_of(catalogue.begin(), catalogue.end(), [&](const QVariant& row) {
    const std::optional<QString> listed = TextOf(row.toMap(), kIdentifier);
    return listed && listed->toCaseFolded() == wanted;
  });
}

std::int32_t AddApplicationToCatalogue(InstalledApplications& installed,
                                       ApplicationPreferences& preferences, const QString& path) {
  const auto application = installed.Application(path);
  const auto* info = std::get_if<ApplicationInfo>(&application);
  const std::optional<QVariantMap> row = info ? MakeCatalogueRow(*info) : std::nullopt;
  if (!row) return kNoApplication;
  QVariantList catalogue = CopyApplicationsCatalogue(installed, preferences);
  if (CatalogueContainsIdentifier(catalogue, row->value(kIdentifier).toString())) {
    return kApplicationPresent;
  }
  Rows rows(catalogue.mid(1));
  rows.Append(*row);
  Store(installed, preferences, std::move(rows));
  return kApplicationAdded;
}

void RebuildApplicationsCatalogue(InstalledApplications& installed,
                                  ApplicationPreferences& preferences) {
  Rows rows = ScanApplications(installed);
  for (const QVariant& row : StoredCatalogue(preferences).mid(1)) {
    const QString identifier = TextOf(row.toMap(), kIdentifier).value_or(QString());
    const std::optional<QString> path = TextOf(row.toMap(), kUrl);
    if (!path || rows.Contains(identifier)) continue;
    const auto application = installed.Application(*path);
    if (const auto* info = std::get_if<ApplicationInfo>(&application)) rows.AppendNew(*info);
  }
  Store(installed, preferences, std::move(rows));
  (void)preferences.Synchronize();
}

int CompareCatalogueNames(const QVariantMap& one, const QVariantMap& other) {
  const std::optional<QString> name = TextOf(one, kName);
  const std::optional<QString> otherName = TextOf(other, kName);
  if (!name || !otherName) return 0;
  return name->toCaseFolded().compare(otherName->toCaseFolded());
}

std::optional<QVariantMap> MakeCatalogueRow(const ApplicationInfo& application) {
  const bool isNamed =
      !application.isBundle || !application.identifier.value_or(QString()).isEmpty();
  const std::optional<QString> identifier = MakeApplicationIdentifier(application);
  if (!isNamed || !identifier || !IsXmlText(*identifier)) return std::nullopt;
  if (application.path.isEmpty() || !IsXmlText(application.path)) return std::nullopt;
  const QString& name = application.displayName;
  return QVariantMap{
      {kUrl, application.path},
      {kName, StorableName(name.isEmpty() ? application.path.section(u'/', -1) : name)},
      {kIdentifier, *identifier}};
}

}  // namespace vardell
