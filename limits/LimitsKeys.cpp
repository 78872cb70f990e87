#include "limits/LimitsKeys.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "link/LimitsRecord.h"

namespace vardell {
namespace {

constexpr std::int64_t kMostInt32 = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kMostTime = std::numeric_limits<std::uint32_t>::max();

constexpr LimitsKey kKeys[] = {
    {"Enabled", LimitsValue::Flag},
    {"Credit", LimitsValue::Credit, kMostInt32},
    {"Report Credit", LimitsValue::Flag},
    {"WD Curfew Enabled", LimitsValue::Flag},
    {"WD start", LimitsValue::Minute, 1439},
    {"WD stop", LimitsValue::Minute, 1440},
    {"WE Curfew Enabled", LimitsValue::Flag},
    {"WE start", LimitsValue::Minute, 1439},
    {"WE stop", LimitsValue::Minute, 1440},
    {"AutoUpdateValue", LimitsValue::Number, kMostInt32},
    {"AutoUpdateCoeff", LimitsValue::Unit, 60},
    {"WE Value", LimitsValue::Number, kMostInt32},
    {"WE Coeff", LimitsValue::UnitOrNone, 60},
    {"NextAutoUpdate", LimitsValue::Time, kMostTime},
    {"DQ Enabled", LimitsValue::Flag, 0, true},
    {"DQ Value", LimitsValue::Number, kMostInt32, true},
};

}  // namespace

std::span<const LimitsKey> AllLimitsKeys() {
  return kKeys;
}

const LimitsKey* FindLimitsKey(const QString& name) {
  const auto found = std::find_if(std::begin(kKeys), std::end(kKeys), [&](const LimitsKey& key) {
    return name == QLatin1String(key.name);
  });
  return found == std::end(kKeys) ? nullptr : found;
}

bool TakesNumber(const LimitsKey& key, double number) {
  if (!(number >= 0 && number <= static_cast<double>(key.most))) return false;
  const bool isWhole = std::trunc(number) == number;
  switch (key.value) {
    case LimitsValue::Flag:
      return false;
    case LimitsValue::Credit:
      return isWhole && number != kSpentCredit;
    case LimitsValue::Number:
    case LimitsValue::Minute:
      return isWhole;
    case LimitsValue::Unit:
      return number == 60 || number == 1;
    case LimitsValue::UnitOrNone:
      return number == 60 || number == 1 || number == 0;
    case LimitsValue::Time:
      return true;
  }
  return false;
}

QString AllowedValues(const LimitsKey& key) {
  switch (key.value) {
    case LimitsValue::Flag:
      return QStringLiteral("true or false");
    case LimitsValue::Credit:
      return QStringLiteral("whole minutes from 0 to %1, but not %2, which means \"spent\"")
          .arg(key.most)
          .arg(kSpentCredit);
    case LimitsValue::Number:
      return QStringLiteral("a whole number from 0 to %1").arg(key.most);
    case LimitsValue::Minute:
      return QStringLiteral("a minute of the day from 0 to %1").arg(key.most);
    case LimitsValue::Unit:
      return QStringLiteral("60 (hours) or 1 (minutes)");
    case LimitsValue::UnitOrNone:
      return QStringLiteral("60 (hours), 1 (minutes) or 0 (none)");
    case LimitsValue::Time:
      return QStringLiteral("seconds since 2001 (GMT) from 0 to %1 (0: no top-up)").arg(key.most);
  }
  return {};
}

}  // namespace vardell
