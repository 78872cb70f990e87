// Installed applications as a test lists them.
#pragma once

#include <QMap>

#include "platform/InstalledApplications.h"

namespace vardell {

class FakeInstalledApplications : public InstalledApplications {
 public:
  std::vector<QString> Folders() override {
    ++scans;
    return folders;
  }
  std::vector<InstalledItem> Items(const QString& folder) override { return items[folder]; }
  std::variant<ApplicationInfo, NotApplication> Application(const QString& path) override {
    for (const auto& list : items) {
      for (const InstalledItem& item : list) {
        if (item.path == path && item.application) return *item.application;
      }
    }
    const auto at = unlisted.find(path);
    if (at == unlisted.end()) return NotApplication::Missing;
    return *at;
  }
  QString MachineName() override { return QStringLiteral("family"); }

  void AddFolder(const QString& path) {
    items[path.section(u'/', 0, -2)].push_back({path, true, {}});
  }
  void Add(const ApplicationInfo& application) {
    items[application.path.section(u'/', 0, -2)].push_back({application.path, true, application});
  }

  int scans = 0;
  std::vector<QString> folders;
  QMap<QString, std::vector<InstalledItem>> items;
  QMap<QString, ApplicationInfo> unlisted;  // offered to nobody
};

}  // namespace vardell
