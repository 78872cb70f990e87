// The settings of the agents of a machine: what an administrator may write, how it is stored, and
// what a stored value means to an agent. Pure functions, but for MissingAccount.
#pragma once

#include <QJsonArray>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <optional>
#include <span>
#include <vector>

namespace vardell::control {

enum class SettingForm {
  Switch,         // a string that holds an integer: "1" or "0"
  Configuration,  // a number: what to do without a Server
  Server,         // "host:port"
  Account,        // a login name
};

struct SettingKey {
  const char* name;  // as in the file
  SettingForm form;
  bool usuallyOn = false;  // of a switch that is absent
};

// In the order in which they are shown.
std::span<const SettingKey> AllSettingKeys();

// Null where there is none of that very name.
const SettingKey* FindSettingKey(const QString& name);
QString UnknownSetting(const QString& name);  // a problem for people

struct ParsedSetting {
  QVariant value;   // as it is stored; invalid where there is a problem
  QString problem;  // for people, naming the key and what is allowed; empty when all is well
};

ParsedSetting ParseSetting(const QString& name, const QString& text);

// What holds for an agent that finds this value, or none.
struct ShownSetting {
  QString value;  // "on", "retry", "192.0.2.1:40001"
  QString meaning;
  bool isDefault = false;  // nothing is stored, or nothing that an agent takes
};

ShownSetting ShowSetting(const SettingKey& key, const QVariant& stored);

// "on (default)" where it is that.
QString ShownValue(const SettingKey& key, const QVariant& stored);

// Of a file's keys, those that are no settings of Vardell.
QStringList UnknownKeys(const QVariantMap& settings);

struct SettingChange {
  QString key;
  QString before;  // as shown; "-" where an unknown key is absent
  QString after;
};

// What differs between two files, unknown keys included.
std::vector<SettingChange> CompareSettings(const QVariantMap& before, const QVariantMap& after);
QJsonArray SettingChangesJson(const std::vector<SettingChange>& changes);

inline constexpr char kWhenSettingsCount[] =
    "Agents read their settings when a session begins: who is logged in now gets this at the next "
    "login.\n";

// A stored value of any kind in a few words.
QString StoredText(const QVariant& stored);

// The login name, where it is stored and no account of this machine has it. Asks the system's
// user database, which may block.
std::optional<QString> MissingAccount(const QVariantMap& settings);

}  // namespace vardell::control
