#include "core/AgentPreferences.h"

#include "Common Sources/PropertyList.h"
#include "Common Sources/PropertyListFiles.h"
#include "Common Sources/TestHooks.h"

namespace vardell {
namespace {

std::optional<QString> StringPreference(Preferences& preferences, const QString& key) {
  const std::optional<QVariant> value = preferences.Value(key);
  if (!value || value->typeId() != QMetaType::QString) return std::nullopt;
  return value->toString();
}

}  // namespace

bool ReadBooleanPreference(Preferences& preferences, const QString& key, bool* foundFlag) {
  const std::optional<QString> text = StringPreference(preferences, key);
  if (foundFlag) *foundFlag = text.has_value();
  return text && StringIntValue(*text) != 0;
}

void LoadPreferences(Agent& agent) {
  Preferences& preferences = agent.platform.preferences;
  bool found = false;
  const bool lastMinute =
      ReadBooleanPreference(preferences, QStringLiteral("Last Minute Credit"), &found);
  agent.lastMinuteCredit = lastMinute || !found;
  agent.autoHideAlerts =
      ReadBooleanPreference(preferences, QStringLiteral("Auto Hide Alerts"), nullptr);
  agent.playAlertsSound =
      ReadBooleanPreference(preferences, QStringLiteral("Play Alerts Sound"), nullptr);
  agent.dontFadeScreen =
      ReadBooleanPreference(preferences, QStringLiteral("Don't fade screen"), nullptr);
}

bool IsLockBadgeWanted(Preferences& preferences) {
  return ReadBooleanPreference(preferences, QStringLiteral("Show Lock Badge"), nullptr);
}

std::int8_t ReadConfiguration(Preferences& preferences) {
  const std::optional<QVariant> value = preferences.Value(QStringLiteral("Configuration"));
  if (!value || value->typeId() == QMetaType::Bool) return 0;
  const std::optional<double> number = NumberAsDouble(*value);
  if (!number || !(*number >= -128 && *number <= 127)) return 0;
  return static_cast<std::int8_t>(*number);
}

std::optional<QString> ReadPinnedServer(Preferences& preferences) {
  return StringPreference(preferences, QStringLiteral("Server"));
}

bool IsNonWatchedAccount(const QString& userName) {
  const std::optional<QVariant> settings =
      ReadPropertyListFromPath(ProductPath(QLatin1String(kSystemPreferencesPath)));
  if (!settings || settings->typeId() != QMetaType::QVariantMap) return false;
  const QVariant account = settings->toMap().value(QStringLiteral("Non-watched account"));
  return account.typeId() == QMetaType::QString &&
         account.toString().compare(userName, Qt::CaseInsensitive) == 0;
}

}  // namespace vardell
