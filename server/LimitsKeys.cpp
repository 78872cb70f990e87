#include "server/LimitsKeys.h"

#include <QMetaType>
#include <algorithm>
#include <cmath>
#include <limits>

#include "Common Sources/Caps.h"
#include "limits/LimitsDictionary.h"
#include "limits/WatchedApps.h"

namespace vardell::server {
namespace {

constexpr std::int64_t kMostInt32 = std::numeric_limits<std::int32_t>::max();
constexpr char kCreditKey[] = "Credit";

enum class ValueKind { Boolean, Whole, Time, Unit, UnitOrNone, CreditMinutes };

struct KeyRule {
  const char* name;
  ValueKind kind;
  std::int64_t most = 0;  // of a whole number; the least is 0
  bool ofQuota = false;
};

constexpr KeyRule kRules[] = {
    {"NextAutoUpdate", ValueKind::Time},         {kCreditKey, ValueKind::CreditMinutes, kMostInt32},
    {"Report Credit", ValueKind::Boolean},       {"Enabled", ValueKind::Boolean},
    {"AutoUpdateCoeff", ValueKind::Unit},        {"AutoUpdateValue", ValueKind::Whole, kMostInt32},
    {"WE Coeff", ValueKind::UnitOrNone},         {"WE Value", ValueKind::Whole, kMostInt32},
    {"WD start", ValueKind::Whole, 1439},        {"WD stop", ValueKind::Whole, 1440},
    {"WE start", ValueKind::Whole, 1439},        {"WE stop", ValueKind::Whole, 1440},
    {"WD Curfew Enabled", ValueKind::Boolean},   {"WE Curfew Enabled", ValueKind::Boolean},
    {"DQ Enabled", ValueKind::Boolean, 0, true}, {"DQ Value", ValueKind::Whole, kMostInt32, true},
};

const KeyRule* FindRule(const QString& key) {
  const auto found = std::find_if(std::begin(kRules), std::end(kRules), [&](const KeyRule& rule) {
    return key == QLatin1String(rule.name);
  });
  return found == std::end(kRules) ? nullptr : found;
}

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

std::optional<QString> WholeNumberProblem(const QVariant& value, std::int64_t most) {
  const std::optional<double> number = Number(value);
  const bool fits = number && std::isfinite(*number) && std::trunc(*number) == *number &&
                    *number >= 0 && *number <= static_cast<double>(most);
  if (fits) return std::nullopt;
  return QStringLiteral("must be a whole number from 0 to %1").arg(most);
}

std::optional<QString> TimeProblem(const QVariant& value) {
  const std::optional<double> number = Number(value);
  if (number && std::isfinite(*number) && *number >= 0) return std::nullopt;
  return QStringLiteral("must be a number: seconds since 1 January 2001 00:00 GMT, or 0 for none");
}

std::optional<QString> UnitProblem(const QVariant& value, bool mayBeNone) {
  const double number = Number(value).value_or(-1);
  if (number == 1 || number == 60 || (mayBeNone && number == 0)) return std::nullopt;
  return mayBeNone ? QStringLiteral("must be 60 (hours), 1 (minutes) or 0 (none)")
                   : QStringLiteral("must be 60 (hours) or 1 (minutes)");
}

std::optional<QString> ValueProblem(const KeyRule& rule, const QVariant& value) {
  switch (rule.kind) {
    case ValueKind::Boolean:
      if (value.typeId() == QMetaType::Bool) return std::nullopt;
      return QStringLiteral("must be true or false");
    case ValueKind::Whole:
      return WholeNumberProblem(value, rule.most);
    case ValueKind::Time:
      return TimeProblem(value);
    case ValueKind::Unit:
      return UnitProblem(value, false);
    case ValueKind::UnitOrNone:
      return UnitProblem(value, true);
    case ValueKind::CreditMinutes: {
      const std::optional<QString> problem = WholeNumberProblem(value, rule.most);
      return problem ? problem : CreditProblem(value.toLongLong());
    }
  }
  return std::nullopt;
}

}  // namespace

LimitsRecord DefaultLimits() {
  LimitsRecord record;
  const QVariantMap nothing;
  ParseLimitsDictionary(&nothing, &record);
  return record;
}

std::optional<KeyProblem> ApplyLimitsKeys(const QString& identifier, const LimitsRecord& before,
                                          const QVariantMap& keys, LimitsChange* change) {
  QVariantMap after = MakeLimitsDictionary(before);
  std::optional<std::int64_t> credit;
  for (auto key = keys.begin(); key != keys.end(); ++key) {
    const KeyRule* rule = FindRule(key.key());
    if (!rule) return KeyProblem{true, key.key(), QStringLiteral("is not the name of a limit")};
    if (IsGlobalSettings(identifier) && !rule->ofQuota) {
      return KeyProblem{false, key.key(),
                        QStringLiteral("does not apply to the global settings, which hold only "
                                       "\"DQ Enabled\" and \"DQ Value\"")};
    }
    if (auto problem = ValueProblem(*rule, *key)) return KeyProblem{false, key.key(), *problem};
    if (rule->kind == ValueKind::CreditMinutes) {
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
  if (minutes < 0 || minutes > kMostInt32) {
    return QStringLiteral("must be a whole number from 0 to %1").arg(kMostInt32);
  }
  if (minutes == kSpentCredit) {
    return QStringLiteral("cannot be 12345, which means \"spent\" to the agents; take 12344");
  }
  return std::nullopt;
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

bool IsGlobalSettings(const QString& identifier) {
  return identifier == QLatin1String(kGlobalSettingsIdentifier);
}

}  // namespace vardell::server
