#include "server/LimitsKeys.h"

#include <QMetaType>
#include <algorithm>

#include "Common Sources/Caps.h"
#include "limits/LimitsDictionary.h"
#include "limits/LimitsKeys.h"
#include "limits/WatchedApps.h"

namespace vardell::server {
namespace {

std::optional<double> Number(const QVariant& value) {
  switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
      return value.toDouble();
    default:
      return std::nullopt;
  }
}

std::optional<QString> ValueProblem(const LimitsKey& key, const QVariant& value) {
  const bool fits = key.value == LimitsValue::Flag ? value.typeId() == QMetaType::Bool
                                                   : TakesNumber(key, Number(value).value_or(-1));
  if (fits) return std::nullopt;
  return QStringLiteral("must be ") + AllowedValues(key);
}

}  // namespace

LimitsRecord DefaultLimits() {
  LimitsRecord record;
  const QVariantMap nothing;
  ParseLimitsDictionary(&nothing, &record);
  return record;
}

LimitsRecord NewLimits() {
  LimitsRecord record = DefaultLimits();
  record.enabled = 1;
  return record;
}

std::optional<KeyProblem> ApplyLimitsKeys(const QString& identifier, const LimitsRecord& before,
                                          const QVariantMap& keys, LimitsChange* change) {
  QVariantMap after = MakeLimitsDictionary(before);
  std::optional<std::int64_t> credit;
  for (auto key = keys.begin(); key != keys.end(); ++key) {
    const LimitsKey* known = FindLimitsKey(key.key());
    if (!known) return KeyProblem{true, key.key(), QStringLiteral("is not the name of a limit")};
    if (IsGlobalSettings(identifier) && !known->ofQuota) {
      return KeyProblem{false, key.key(),
                        QStringLiteral("does not apply to the global settings, which hold only "
                                       "\"DQ Enabled\" and \"DQ Value\"")};
    }
    if (auto problem = ValueProblem(*known, *key)) return KeyProblem{false, key.key(), *problem};
    if (known->value == LimitsValue::Credit) {
      credit = key->toLongLong();
    } else {
      after.insert(key.key(), *key);
    }
  }
  ParseLimitsDictionary(&after, &change->limits);
  change->credit = credit;
  return std::nullopt;
}

std::optional<QString> CreditProblem(std::int64_t minutes) {
  return ValueProblem(*FindLimitsKey(QStringLiteral("Credit")), QVariant(qlonglong{minutes}));
}

std::optional<QString> NameProblem(const QString& name) {
  if (name.isEmpty()) return QStringLiteral("must not be empty");
  if (!name.isValidUtf16()) return QStringLiteral("must be valid Unicode");
  if (static_cast<std::size_t>(name.toUtf8().size()) > kMaxNameBytes) {
    return QStringLiteral("must not be longer than %1 bytes").arg(kMaxNameBytes);
  }
  const bool hasControl = std::any_of(name.begin(), name.end(), [](QChar character) {
    return character.category() == QChar::Other_Control || character.unicode() >= 0xfffe;
  });
  if (hasControl) return QStringLiteral("must not contain control characters");
  return std::nullopt;
}

bool IsSession(const QString& identifier) {
  return identifier == QLatin1String(kLoginWindowIdentifier);
}

bool IsGlobalSettings(const QString& identifier) {
  return identifier == QLatin1String(kGlobalSettingsIdentifier);
}

}  // namespace vardell::server
