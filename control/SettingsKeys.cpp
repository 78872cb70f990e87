#include "control/SettingsKeys.h"

#include <pwd.h>

#include <QDateTime>
#include <QJsonObject>
#include <algorithm>

#include "Common Sources/Caps.h"
#include "Common Sources/PropertyList.h"
#include "control/Tables.h"
#include "link/PinnedServer.h"

namespace vardell::control {
namespace {

constexpr SettingKey kKeys[] = {
    {"Last Minute Credit", SettingForm::Switch, true},
    {"Auto Hide Alerts", SettingForm::Switch},
    {"Play Alerts Sound", SettingForm::Switch},
    {"Don't fade screen", SettingForm::Switch},
    {"Show Lock Badge", SettingForm::Switch},
    {"Configuration", SettingForm::Configuration},
    {"Server", SettingForm::Server},
    {"Non-watched account", SettingForm::Account},
};

constexpr const char* kConfigurations[] = {"carry-on", "lock", "retry"};
constexpr const char* kConfigurationMeanings[] = {
    "without a Server the session goes on, and is watched once one is there",
    "without a Server the screen is covered, once",
    "without a Server the screen is covered, every two minutes anew"};

struct SwitchMeaning {
  const char* on;
  const char* off;
};

// In the order of kKeys.
constexpr SwitchMeaning kSwitchMeanings[] = {
    {"whoever has no credit left gets one last minute", "without credit the end comes at once"},
    {"warnings go away by themselves after a minute", "warnings stay until they are clicked away"},
    {"a warning beeps every three seconds", "warnings make no sound"},
    {"warnings are a small window", "warnings cover all screens"},
    {"a padlock in a corner of the screen locks it", "no padlock on the screen"},
};

ParsedSetting Refuse(const QString& name, const QString& text, const char* allowed) {
  return {{},
          QStringLiteral("\"%1\" cannot be \"%2\": it takes %3")
              .arg(name, text, QLatin1String(allowed))};
}

bool IsAnyOf(const QString& word, std::initializer_list<const char*> words) {
  return std::ranges::any_of(words, [&](const char* one) { return word == QLatin1String(one); });
}

ParsedSetting ParseSwitch(const QString& name, const QString& text) {
  const QString word = text.toLower();
  if (IsAnyOf(word, {"on", "yes", "true", "1"})) return {QStringLiteral("1"), {}};
  if (IsAnyOf(word, {"off", "no", "false", "0"})) return {QStringLiteral("0"), {}};
  return Refuse(name, text, "on or off");
}

ParsedSetting ParseConfiguration(const QString& name, const QString& text) {
  for (qlonglong number = 0; number < qlonglong(std::size(kConfigurations)); ++number) {
    const bool isThis =
        text == QString::number(number) || text.toLower() == QLatin1String(kConfigurations[number]);
    if (isThis) return {number, {}};
  }
  return Refuse(name, text, "carry-on (or 0), lock (or 1) or retry (or 2)");
}

ParsedSetting ParseServer(const QString& name, const QString& text) {
  const QString trimmed = text.trimmed();
  if (ParseHostAndPort(trimmed)) return {trimmed, {}};
  return Refuse(name, text, "host:port, an IPv6 address in brackets");
}

ParsedSetting ParseAccount(const QString& name, const QString& text) {
  const bool isPrintable = text == Printable(text) && text.isValidUtf16();
  const bool fits = static_cast<std::size_t>(text.toUtf8().size()) <= kMaxNameBytes;
  const bool hasBlanks = std::ranges::any_of(text, [](QChar c) { return c.isSpace(); });
  if (!text.isEmpty() && isPrintable && fits && !hasBlanks) return {text, {}};
  return Refuse(name, text, "the login name of an account");
}

ShownSetting ShowSwitch(const SettingKey& key, const QVariant& stored) {
  const SwitchMeaning& meaning = kSwitchMeanings[&key - kKeys];
  const bool isStored = stored.typeId() == QMetaType::QString;
  const bool isOn = isStored ? StringIntValue(stored.toString()) != 0 : key.usuallyOn;
  return {isOn ? QStringLiteral("on") : QStringLiteral("off"),
          QLatin1String(isOn ? meaning.on : meaning.off), !isStored};
}

ShownSetting ShowConfiguration(const QVariant& stored) {
  const std::optional<double> number =
      stored.typeId() == QMetaType::Bool ? std::nullopt : NumberAsDouble(stored);
  const bool isStored = number && *number >= -128 && *number <= 127;
  const int value = isStored ? static_cast<int>(*number) : 0;
  const bool isNamed = value >= 0 && value < int(std::size(kConfigurations));
  return {isNamed ? QLatin1String(kConfigurations[value]) : QString::number(value),
          QLatin1String(kConfigurationMeanings[isNamed ? value : 0]), !isStored};
}

ShownSetting ShowServer(const QVariant& stored) {
  const QString text = stored.typeId() == QMetaType::QString ? stored.toString() : QString();
  if (ParseHostAndPort(text)) {
    return {Printable(text), QStringLiteral("agents ask this Server and look for no other"), false};
  }
  return {QStringLiteral("any"), QStringLiteral("agents look for a Server"), true};
}

ShownSetting ShowAccount(const QVariant& stored) {
  const QString text = stored.typeId() == QMetaType::QString ? stored.toString() : QString();
  return text.isEmpty()
             ? ShownSetting{QStringLiteral("none"), QStringLiteral("every account is watched"),
                            true}
             : ShownSetting{Printable(text), QStringLiteral("this account is left alone"), false};
}

}  // namespace

std::span<const SettingKey> AllSettingKeys() {
  return kKeys;
}

const SettingKey* FindSettingKey(const QString& name) {
  const auto found = std::ranges::find_if(
      kKeys, [&](const SettingKey& key) { return name == QLatin1String(key.name); });
  return found == std::end(kKeys) ? nullptr : &*found;
}

QString UnknownSetting(const QString& name) {
  QStringList names;
  for (const SettingKey& key : kKeys) names.append(QLatin1String(key.name));
  return QStringLiteral("there is no setting \"%1\"; the settings are: %2")
      .arg(Printable(name), names.join(QStringLiteral(", ")));
}

ParsedSetting ParseSetting(const QString& name, const QString& text) {
  const SettingKey* key = FindSettingKey(name);
  if (key == nullptr) return {{}, UnknownSetting(name)};
  switch (key->form) {
    case SettingForm::Switch:
      return ParseSwitch(name, text);
    case SettingForm::Configuration:
      return ParseConfiguration(name, text);
    case SettingForm::Server:
      return ParseServer(name, text);
    case SettingForm::Account:
      return ParseAccount(name, text);
  }
  return {};
}

ShownSetting ShowSetting(const SettingKey& key, const QVariant& stored) {
  switch (key.form) {
    case SettingForm::Switch:
      return ShowSwitch(key, stored);
    case SettingForm::Configuration:
      return ShowConfiguration(stored);
    case SettingForm::Server:
      return ShowServer(stored);
    case SettingForm::Account:
      return ShowAccount(stored);
  }
  return {};
}

QString ShownValue(const SettingKey& key, const QVariant& stored) {
  const ShownSetting shown = ShowSetting(key, stored);
  return shown.isDefault ? shown.value + QStringLiteral(" (default)") : shown.value;
}

QStringList UnknownKeys(const QVariantMap& settings) {
  QStringList keys;
  for (auto one = settings.begin(); one != settings.end(); ++one) {
    if (FindSettingKey(one.key()) == nullptr) keys.append(one.key());
  }
  return keys;
}

std::vector<SettingChange> CompareSettings(const QVariantMap& before, const QVariantMap& after) {
  std::vector<SettingChange> changes;
  for (const SettingKey& key : kKeys) {
    const QVariant was = before.value(QLatin1String(key.name));
    const QVariant is = after.value(QLatin1String(key.name));
    if (was.typeId() == is.typeId() && was == is) continue;
    changes.push_back({QLatin1String(key.name), ShownValue(key, was), ShownValue(key, is)});
  }
  QVariantMap both = before;
  both.insert(after);
  for (const QString& key : UnknownKeys(both)) {
    const auto text = [&](const QVariantMap& in) {
      return in.contains(key) ? StoredText(in[key]) : QStringLiteral("-");
    };
    if (before.value(key) != after.value(key)) {
      changes.push_back({Printable(key), text(before), text(after)});
    }
  }
  return changes;
}

QJsonArray SettingChangesJson(const std::vector<SettingChange>& changes) {
  QJsonArray list;
  for (const SettingChange& change : changes) {
    list.append(QJsonObject{{QStringLiteral("key"), change.key},
                            {QStringLiteral("before"), change.before},
                            {QStringLiteral("after"), change.after}});
  }
  return list;
}

QString StoredText(const QVariant& stored) {
  switch (stored.typeId()) {
    case QMetaType::QVariantMap:
      return QStringLiteral("a dictionary");
    case QMetaType::QVariantList:
      return QStringLiteral("a list");
    case QMetaType::QByteArray:
      return QStringLiteral("%1 bytes of data").arg(stored.toByteArray().size());
    case QMetaType::QDateTime:
      return stored.toDateTime().toString(Qt::ISODate);
    default:
      return Printable(stored.toString());
  }
}

std::optional<QString> MissingAccount(const QVariantMap& settings) {
  const QVariant account = settings.value(QStringLiteral("Non-watched account"));
  if (account.typeId() != QMetaType::QString) return std::nullopt;
  const QString name = account.toString();
  for (const QString& spelling : {name, name.toLower()}) {
    if (getpwnam(spelling.toUtf8().constData()) != nullptr) return std::nullopt;
  }
  return name;
}

}  // namespace vardell::control
