// Checks the keys that an administrator changes, before anything is changed.
#pragma once

#include <QString>
#include <QVariant>
#include <cstdint>
#include <optional>

#include "link/LimitsRecord.h"
#include "server/LimitOptions.h"

namespace vardell::server {

struct LimitsChange {
  LimitsRecord limits;                 // with the keys applied; credit untouched
  std::optional<std::int64_t> credit;  // where "Credit" was among the keys
  LimitOptions options;                // as they are to be; no keys change them
};

struct KeyProblem {
  bool unknownKey = false;  // otherwise the value is wrong
  QString field;            // the key
  QString message;          // a sentence for people
};

// What a record without any key says: coefficient 1, both stops 1439, all else 0 or off.
LimitsRecord DefaultLimits();

// What a limit that is made begins with: the default, but enabled.
LimitsRecord NewLimits();

// `before` with `keys` applied (those of limits/LimitsKeys.h), or the first problem, in
// the keys' order. Numbers may be whole doubles (a JSON 480.0); booleans must be booleans. For the
// global settings only the quota's keys exist.
std::optional<KeyProblem> ApplyLimitsKeys(const QString& identifier, const LimitsRecord& before,
                                          const QVariantMap& keys, LimitsChange* change);

// Whether minutes can be a credit; otherwise what is wrong.
std::optional<QString> CreditProblem(std::int64_t minutes);

// Whether `name` can be a user's name or an identifier; otherwise what is wrong.
std::optional<QString> NameProblem(const QString& name);

bool IsGlobalSettings(const QString& identifier);
bool IsSession(const QString& identifier);

}  // namespace vardell::server
