#include "platform/linux/LinuxPreferences.h"

#include <QFileInfo>

#include "Common Sources/PropertyListFiles.h"
#include "Common Sources/TestHooks.h"

namespace vardell {

bool LinuxPreferences::Synchronize() {
  const QString path = ProductPath(QLatin1String(kSystemPreferencesPath));
  const std::optional<QVariant> read = ReadPropertyListFromPath(path);
  if (read && read->typeId() == QMetaType::QVariantMap) {
    values_ = read->toMap();
    return true;
  }
  if (QFileInfo::exists(path)) return false;
  values_.clear();
  return true;
}

std::optional<QVariant> LinuxPreferences::Value(const QString& key) {
  const auto value = values_.constFind(key);
  return value == values_.constEnd() ? std::nullopt : std::optional(*value);
}

}  // namespace vardell
