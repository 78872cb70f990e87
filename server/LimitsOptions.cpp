#include "server/LimitsOptions.h"

#include <QJsonValue>
#include <limits>

#include "server/ControlReading.h"

namespace vardell::server {
namespace {

constexpr std::int64_t kMostMinutes = std::numeric_limits<std::int32_t>::max();
const QLatin1String kRollOver("rollOver");
const QLatin1String kRollOverCap("rollOverCap");

}  // namespace

QJsonObject OptionsJson(const LimitOptions& options) {
  return {
      {kRollOver, options.rollOver},
      {kRollOverCap, options.cap ? QJsonValue(qint64{*options.cap}) : QJsonValue(QJsonValue::Null)},
  };
}

bool IsOption(const QString& name) {
  return name == kRollOver || name == kRollOverCap;
}

std::optional<KeyProblem> ApplyOptions(const QString& identifier, const QVariantMap& changes,
                                       LimitOptions* options) {
  LimitOptions after = *options;
  for (auto change = changes.begin(); change != changes.end(); ++change) {
    const QString& name = change.key();
    const QJsonValue value = QJsonValue::fromVariant(*change);
    if (!IsOption(name)) return KeyProblem{true, name, QStringLiteral("is not an option")};
    if (IsGlobalSettings(identifier)) {
      return KeyProblem{false, name, QStringLiteral("does not apply to the global settings")};
    }
    if (name == kRollOver) {
      if (!value.isBool()) return KeyProblem{false, name, QStringLiteral("must be true or false")};
      after.rollOver = value.toBool();
      continue;
    }
    after.cap = WholeNumber(value);
    const bool isCap = after.cap ? *after.cap >= 0 && *after.cap <= kMostMinutes : value.isNull();
    if (!isCap) {
      return KeyProblem{
          false, name,
          QStringLiteral("must be whole minutes from 0 to %1, or null").arg(kMostMinutes)};
    }
  }
  *options = after;
  return std::nullopt;
}

}  // namespace vardell::server
