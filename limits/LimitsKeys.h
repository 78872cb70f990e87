// The keys of a limit and the values that they take, for those who let people change them.
#pragma once

#include <QString>
#include <cstdint>
#include <optional>
#include <span>

namespace vardell {

enum class LimitsValue {
  Flag,
  Credit,  // minutes
  Number,
  Minute,      // of the day
  Unit,        // 60 or 1
  UnitOrNone,  // 60, 1 or 0
  Time,        // seconds since 2001 (GMT); need not be whole
};

struct LimitsKey {
  const char* name;  // as in limits/LimitsDictionary.h
  LimitsValue value;
  std::int64_t most = 0;  // of a number of any kind; the least is 0
  bool ofQuota = false;   // also one of the global settings
};

// In the order in which they are shown.
std::span<const LimitsKey> AllLimitsKeys();

// Null where there is none of that very name.
const LimitsKey* FindLimitsKey(const QString& name);

// Whether a key that takes numbers takes this one; any double may be asked about.
bool TakesNumber(const LimitsKey& key, double number);

// What the key takes, for people: "a whole number from 0 to 1439".
QString AllowedValues(const LimitsKey& key);

}  // namespace vardell
