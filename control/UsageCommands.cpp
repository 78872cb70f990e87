#include "control/UsageCommands.h"

#include <QDateTime>
#include <QJsonArray>
#include <QTimeZone>
#include <algorithm>

#include "control/Terminal.h"
#include "control/TextTable.h"
#include "control/UsageChart.h"
#include "limits/UsageTotals.h"
#include "limits/WatchedApps.h"

namespace vardell::control {
namespace {

struct Period {
  const char* word;
  std::int32_t code;
  int days;  // with today; 0 for all
  const char* title;
};

constexpr Period kPeriods[] = {
    {"week", kUsageWeek, 8, "the last 8 days"},
    {"today", kUsageToday, 1, "today"},
    {"month", kUsageMonth, 31, "the last 31 days"},
    {"all", kUsageAll, 0, "all days"},
};

const Period& PeriodOf(const Command& command) {
  for (const Period& period : kPeriods) {
    if (command.period == QLatin1String(period.word)) return period;
  }
  return kPeriods[0];
}

struct Used {
  QString identifier;
  UsageDays days;
  qint64 total() const {
    qint64 sum = 0;
    for (const qint64 minutes : days) sum += minutes;
    return sum;
  }
};

struct History {
  std::vector<Used> used;
  QDate first;  // of the period; invalid for all days
  QDate today;
};

QString DayText(const QDate& day) {
  return day.toString(Qt::ISODate);
}

bool IsInPeriod(const History& history, const QDate& day) {
  return !history.first.isValid() || (day >= history.first && day <= history.today);
}

Used UsedFrom(const QString& identifier, const QJsonObject& days, const History& history) {
  Used used{identifier, {}};
  for (auto one = days.begin(); one != days.end(); ++one) {
    const QDate day = QDate::fromString(one.key(), Qt::ISODate);
    const qint64 minutes = one.value().toInteger();
    if (day.isValid() && minutes > 0 && IsInPeriod(history, day)) used.days.insert(day, minutes);
  }
  return used;
}

QByteArray Query(const History& history) {
  if (!history.first.isValid()) return {};
  return "?from=" + DayText(history.first).toLatin1() + "&to=" + DayText(history.today).toLatin1();
}

// The session, whose time is the time at the computer, and then what was used most.
void Sort(std::vector<Used>* used) {
  const auto rank = [](const Used& one) {
    const bool isSession = one.identifier == QLatin1String(kLoginWindowIdentifier);
    return std::tuple(!isSession, -one.total(), one.identifier);
  };
  std::sort(used->begin(), used->end(),
            [&](const Used& one, const Used& other) { return rank(one) < rank(other); });
}

// The history, or in the Answer why there is none.
Answer FetchHistory(const Command& command, const HttpClient& server, History* history) {
  const Answer status = Get(server, "/v1/status");
  if (!status.ok()) return status;
  history->today =
      DayIn(status.json[QStringLiteral("zone")].toString(), QDateTime::currentDateTimeUtc());
  const int days = PeriodOf(command).days;
  if (days > 0) history->first = history->today.addDays(1 - days);

  const bool ofOne = !command.identifier.isEmpty();
  const QByteArray target =
      ofOne ? LimitTarget(command.user, command.identifier) : UserTarget(command.user);
  const Answer answer = Get(server, target + "/usage" + Query(*history));
  if (ofOne) {
    history->used.push_back(
        UsedFrom(command.identifier, answer.json[QStringLiteral("days")].toObject(), *history));
    return answer;
  }
  const QJsonArray rows = answer.json[QStringLiteral("usage")].toArray();
  for (const QJsonValue& row : rows) {
    history->used.push_back(UsedFrom(row[QStringLiteral("identifier")].toString(),
                                     row[QStringLiteral("days")].toObject(), *history));
  }
  Sort(&history->used);
  return answer;
}

// In words, by the rules that the agents count days with. Noon, since those step by 24 hours.
QString TotalText(const Used& used, const Period& period, const QDate& today) {
  QVariantMap byDay;
  for (auto day = used.days.begin(); day != used.days.end(); ++day) {
    byDay.insert(UsageDayKey(day.key()), day.value());
  }
  return CopyUsageForPeriodString(&byDay, period.code,
                                  QDateTime(today, QTime(12, 0), QTimeZone::utc()));
}

QString ChartOfOne(const History& history, const Period& period, const Terminal& terminal) {
  const Used& used = history.used[0];
  QDate first = history.first;
  QDate last = history.today;
  if (!first.isValid() && !used.days.isEmpty()) {
    first = used.days.firstKey();
    last = std::max(last, used.days.lastKey());
  }
  const auto bars = BarsOverTime(used.days, first, last);
  return BarChart(bars, terminal.width(), terminal.canShowBlocks()) +
         QStringLiteral("Total: %1\n").arg(TotalText(used, period, history.today));
}

QString ChartOfAll(const History& history, const Period& period, const Terminal& terminal) {
  std::vector<UsageBar> bars;
  for (const Used& used : history.used) {
    if (used.total() > 0) bars.push_back({ShownIdentifier(used.identifier), used.total()});
  }
  if (bars.empty()) return QStringLiteral("Nothing was used.\n");
  QString text = BarChart(bars, terminal.width(), terminal.canShowBlocks());
  const Used& first = history.used[0];
  if (first.identifier == QLatin1String(kLoginWindowIdentifier)) {
    text += QStringLiteral("At the computer: %1\n").arg(TotalText(first, period, history.today));
  }
  return text;
}

// A spreadsheet computes what begins so; with an apostrophe before it, it is a text.
bool LooksLikeFormula(const QString& text) {
  return QStringLiteral("=+-@").contains(text.trimmed().left(1)) && !text.trimmed().isEmpty();
}

QString CsvField(const QString& text) {
  QString inside = LooksLikeFormula(text) ? QLatin1Char('\'') + text : text;
  const bool isPlain = !inside.contains(QLatin1Char('"')) && !inside.contains(QLatin1Char(',')) &&
                       inside.trimmed().size() == inside.size();
  if (isPlain) return inside;
  return QLatin1Char('"') + inside.replace(QLatin1Char('"'), QStringLiteral("\"\"")) +
         QLatin1Char('"');
}

QString Csv(const QString& user, const History& history) {
  QString text = QStringLiteral("user,identifier,day,minutes\r\n");
  for (const Used& used : history.used) {
    for (auto day = used.days.begin(); day != used.days.end(); ++day) {
      text += QStringLiteral("%1,%2,").arg(CsvField(Printable(user)),
                                           CsvField(ShownIdentifier(used.identifier))) +
              QStringLiteral("%1,%2\r\n").arg(DayText(day.key())).arg(day.value());
    }
  }
  return text;
}

QJsonObject JsonOf(const Used& used) {
  QJsonObject days;
  for (auto day = used.days.begin(); day != used.days.end(); ++day) {
    days.insert(DayText(day.key()), day.value());
  }
  return {{QStringLiteral("identifier"), used.identifier},
          {QStringLiteral("days"), days},
          {QStringLiteral("total"), used.total()}};
}

QJsonObject Json(const Command& command, const History& history) {
  QJsonObject json;
  QJsonArray usage;
  for (const Used& used : history.used) usage.append(JsonOf(used));
  if (command.identifier.isEmpty()) {
    json[QStringLiteral("usage")] = usage;
  } else {
    json = usage[0].toObject();
  }
  json[QStringLiteral("user")] = command.user;
  json[QStringLiteral("period")] = QLatin1String(PeriodOf(command).word);
  json[QStringLiteral("today")] = DayText(history.today);
  return json;
}

}  // namespace

QDate DayIn(const QString& zone, const QDateTime& now) {
  QTimeZone there(zone.toUtf8());
  if (!there.isValid()) there = QTimeZone("UTC" + zone.toUtf8());  // "+02:00"
  return now.toTimeZone(there.isValid() ? there : QTimeZone::systemTimeZone()).date();
}

Result ShowUsage(const Command& command, const HttpClient& server, Terminal& terminal) {
  if (command.json && command.csv) {
    return Misused(QStringLiteral("--csv and --json do not go together"));
  }
  History history;
  const Answer answer = FetchHistory(command, server, &history);
  if (!answer.ok()) {
    return answer.failure;
  }
  if (command.json) return Done(JsonText(Json(command, history)));
  if (command.csv) return Done(Csv(command.user, history));
  const Period& period = PeriodOf(command);
  QString title = command.identifier.isEmpty() ? Printable(command.user)
                                               : Subject(command.user, command.identifier);
  title += QStringLiteral(", %1:\n").arg(QLatin1String(period.title));
  return Done(title + (command.identifier.isEmpty() ? ChartOfAll(history, period, terminal)
                                                    : ChartOfOne(history, period, terminal)));
}

}  // namespace vardell::control
