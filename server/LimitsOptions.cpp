#include "server/LimitsOptions.h"

#include <QJsonDocument>
#include <QJsonValue>
#include <algorithm>
#include <limits>

#include "Common Sources/Caps.h"
#include "server/ControlReading.h"
#include "server/ScheduleJson.h"
#include "server/StoreText.h"

namespace vardell::server {
namespace {

constexpr std::int64_t kMostMinutes = std::numeric_limits<std::int32_t>::max();
const QLatin1String kSchedule("schedule");

using Problem = std::optional<KeyProblem>;

Problem Wrong(const QString& field, const QString& message) {
  return KeyProblem{false, field, message};
}

Problem ReadFlag(const QString& name, const QJsonValue& value, bool* flag) {
  if (!value.isBool()) return Wrong(name, QStringLiteral("must be true or false"));
  *flag = value.toBool();
  return std::nullopt;
}

Problem ReadCap(const QString& name, const QJsonValue& value, std::optional<std::int64_t>* cap) {
  *cap = WholeNumber(value);
  const bool isCap = *cap ? **cap >= 0 && **cap <= kMostMinutes : value.isNull();
  if (isCap) return std::nullopt;
  return Wrong(name,
               QStringLiteral("must be whole minutes from 0 to %1, or null").arg(kMostMinutes));
}

Problem ReadChosenSchedule(const QJsonValue& value, std::optional<Schedule>* schedule) {
  if (value.isNull()) {
    schedule->reset();
    return std::nullopt;
  }
  if (!value.isObject()) {
    return Wrong(kSchedule, QStringLiteral("must be an object of \"days\" and \"holidays\", or "
                                           "null"));
  }
  Schedule read;
  if (const auto problem = ParseSchedule(value.toObject(), &read)) {
    return Wrong(kSchedule + QLatin1Char('.') + problem->field, problem->message);
  }
  if (static_cast<std::size_t>(ScheduleText(read).toUtf8().size()) > kMaxScheduleBytes) {
    return Wrong(kSchedule, QStringLiteral("must not be larger than %1 bytes: shorten the names of "
                                           "the holidays, or take some out")
                                .arg(kMaxScheduleBytes));
  }
  *schedule = std::move(read);
  return std::nullopt;
}

struct Option {
  QLatin1String name;
  Problem (*read)(const QString& name, const QJsonValue& value, LimitOptions* options);
  QJsonValue (*print)(const LimitOptions& options);
};

const Option kOptions[] = {
    {QLatin1String("rollOver"),
     [](const QString& name, const QJsonValue& value, LimitOptions* options) {
       return ReadFlag(name, value, &options->rollOver);
     },
     [](const LimitOptions& options) { return QJsonValue(options.rollOver); }},
    {QLatin1String("rollOverCap"),
     [](const QString& name, const QJsonValue& value, LimitOptions* options) {
       return ReadCap(name, value, &options->cap);
     },
     [](const LimitOptions& options) {
       return options.cap ? QJsonValue(qint64{*options.cap}) : QJsonValue(QJsonValue::Null);
     }},
    {QLatin1String("unlimited"),
     [](const QString& name, const QJsonValue& value, LimitOptions* options) {
       return ReadFlag(name, value, &options->unlimited);
     },
     [](const LimitOptions& options) { return QJsonValue(options.unlimited); }},
    {QLatin1String("parallel"),
     [](const QString& name, const QJsonValue& value, LimitOptions* options) -> Problem {
       if (ReadParallel(value.toString(), &options->parallel)) return std::nullopt;
       return Wrong(name, QStringLiteral("must be \"sum\" or \"union\""));
     },
     [](const LimitOptions& options) { return QJsonValue(ParallelText(options.parallel)); }},
    {QLatin1String("scope"),
     [](const QString& name, const QJsonValue& value, LimitOptions* options) -> Problem {
       if (ReadScope(value.toString(), &options->scope)) return std::nullopt;
       return Wrong(name, QStringLiteral("must be \"user\" or \"user@host\""));
     },
     [](const LimitOptions& options) { return QJsonValue(ScopeText(options.scope)); }},
    {kSchedule,
     [](const QString&, const QJsonValue& value, LimitOptions* options) {
       return ReadChosenSchedule(value, &options->schedule);
     },
     [](const LimitOptions& options) {
       return options.schedule ? QJsonValue(PrintSchedule(*options.schedule))
                               : QJsonValue(QJsonValue::Null);
     }},
};

const Option* FindOption(const QString& name) {
  const auto* found = std::find_if(std::begin(kOptions), std::end(kOptions),
                                   [&](const Option& option) { return name == option.name; });
  return found == std::end(kOptions) ? nullptr : found;
}

}  // namespace

QJsonObject OptionsJson(const LimitOptions& options) {
  QJsonObject json;
  for (const Option& option : kOptions) json.insert(option.name, option.print(options));
  return json;
}

bool IsOption(const QString& name) {
  return FindOption(name) != nullptr;
}

Problem ApplyOptions(const QString& identifier, const QVariantMap& changes, LimitOptions* options) {
  LimitOptions after = *options;
  for (auto change = changes.begin(); change != changes.end(); ++change) {
    const Option* option = FindOption(change.key());
    if (!option) return KeyProblem{true, change.key(), QStringLiteral("is not an option")};
    if (IsGlobalSettings(identifier)) {
      return Wrong(change.key(), QStringLiteral("does not apply to the global settings"));
    }
    const QJsonValue value = QJsonValue::fromVariant(*change);
    if (auto problem = option->read(change.key(), value, &after)) return problem;
  }
  *options = after;
  return std::nullopt;
}

}  // namespace vardell::server
