// Minutes of use, day by day.
#include <QJsonArray>

#include "server/ControlCall.h"

namespace vardell::server {
namespace {

struct Period {
  QDate from{1, 1, 1};  // inclusive both
  QDate to{9999, 12, 31};
  std::optional<Problem> problem;
};

std::optional<Problem> ReadDay(const Call& call, const char* field, QDate* day) {
  if (call.query.count(QLatin1String(field)) == 0) return std::nullopt;
  const std::optional<QDate> read = DayFrom(call.queried(field));
  if (read) *day = *read;
  const QString name = QLatin1String(field);
  if (read) return std::nullopt;
  return BadValue(name, QStringLiteral("\"%1\" must be a day like 2009-03-05").arg(name));
}

Period ReadPeriod(const Call& call) {
  Period period;
  period.problem = ReadDay(call, "from", &period.from);
  if (!period.problem) period.problem = ReadDay(call, "to", &period.to);
  if (!period.problem && period.to < period.from) {
    period.problem =
        BadValue(QStringLiteral("to"), QStringLiteral("\"to\" must not lie before \"from\""));
  }
  return period;
}

UsageDays Within(const Period& period, const UsageDays& days) {
  return UsageDays(days.lower_bound(period.from), days.upper_bound(period.to));
}

}  // namespace

ControlAnswer GetUsageOfUser(const Call& call) {
  const Period period = ReadPeriod(call);
  if (period.problem) return MakeAnswer(*period.problem);
  const std::vector<UsageEntry> entries = call.household().Usage(call.user());
  if (entries.empty() && call.household().Limits(call.user()).empty()) {
    return MakeAnswer(
        NotFound(QStringLiteral("Neither limits nor usage of \"%1\"").arg(call.user())));
  }
  QJsonArray usage;
  for (const UsageEntry& entry : entries) {
    const UsageDays days = Within(period, entry.days);
    if (days.empty()) continue;
    usage.append(QJsonObject{{QStringLiteral("identifier"), entry.identifier},
                             {QStringLiteral("days"), ToJson(days)}});
  }
  return MakeAnswer(200, {{QStringLiteral("user"), call.user()}, {QStringLiteral("usage"), usage}});
}

ControlAnswer GetUsage(const Call& call) {
  const Period period = ReadPeriod(call);
  if (period.problem) return MakeAnswer(*period.problem);
  const std::optional<UsageDays> days = call.household().Usage(call.user(), call.identifier());
  if (!days) {
    return MakeAnswer(NotFound(QStringLiteral("Neither limits nor usage of \"%1\" for \"%2\"")
                                   .arg(call.user(), call.identifier())));
  }
  return MakeAnswer(200, {{QStringLiteral("user"), call.user()},
                          {QStringLiteral("identifier"), call.identifier()},
                          {QStringLiteral("days"), ToJson(Within(period, *days))}});
}

}  // namespace vardell::server
