#include "server/TopUps.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "Common Sources/Caps.h"
#include "server/CreditRules.h"
#include "server/LocalTimes.h"

namespace vardell::server {
namespace {

constexpr std::int64_t kMostCredit = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kFarAhead = 25 * 60 * kMillisecondsOfMinute;
constexpr std::int64_t kEndOfClocks = 253'370'764'800'000;      // the year 9999
constexpr double kStartOfCalendar = -63'113'904'000;            // the year 1, in seconds since 2001
constexpr double kEndOfCalendar = 252'423'993'600;              // the year 10000
constexpr std::int64_t kStartOfAbsoluteTime = 978'307'200'000;  // 2001, in ms since 1970

double AbsoluteTimeOf(std::int64_t instant) {
  return static_cast<double>(instant - kStartOfAbsoluteTime) / 1000;
}

bool IsUnit(std::int8_t coefficient) {
  return coefficient == 60 || coefficient == 1;
}

struct Today {
  QDate date;
  bool reached = false;  // the time of the top-up has come

  QDate Settled() const { return reached ? date : date.addDays(-1); }
};

Today TodayAt(std::int64_t now, int wallTime, const QTimeZone& zone) {
  const QDate date = ToLocal(now, zone).date;
  return {date, FirstInstant(date, wallTime, zone) <= now};
}

// A time that daylight saving moves over midnight still belongs to its date.
QDate DateOfTopUp(std::int64_t instant, int wallTime, const QTimeZone& zone) {
  const QDate date = ToLocal(instant, zone).date;
  const QDate before = date.addDays(-1);
  return FirstInstant(before, wallTime, zone) == instant ? before : date;
}

std::int64_t InstantAfter(const Today& today, int wallTime, const QTimeZone& zone) {
  QDate date = today.Settled().addDays(1);
  if (!DateExists(date, zone)) date = date.addDays(1);
  return FirstInstant(date, wallTime, zone);
}

std::vector<QDate> MissedDates(const TopUpMemory& memory, bool all, QDate today,
                               const QTimeZone& zone) {
  std::vector<QDate> dates;
  const QDate first = std::max(memory.lastDate->addDays(1), today.addDays(-kMaxMissedTopUps));
  for (QDate date = today.addDays(-1); date >= first; date = date.addDays(-1)) {
    if (!DateExists(date, zone)) continue;
    if (!HadTopUp(memory, date)) dates.push_back(date);
    if (!all) break;
  }
  std::reverse(dates.begin(), dates.end());
  return dates;
}

std::vector<QDate> DueDates(const TopUpMemory& memory, bool rollOver, const Today& today,
                            const QTimeZone& zone) {
  if (HadTopUp(memory, today.date)) return {};
  std::vector<QDate> dates;
  if (rollOver || !today.reached) dates = MissedDates(memory, rollOver, today.date, zone);
  if (today.reached) dates.push_back(today.date);
  return dates;
}

std::int64_t CreditAfter(std::int64_t credit, std::int64_t minutes, const TopUpOptions& options) {
  const std::int64_t before = CreditToKeep(std::max<std::int64_t>(0, credit));
  if (!options.rollOver) return CreditToSend(minutes);
  const std::int64_t most =
      std::clamp<std::int64_t>(options.cap.value_or(kMostCredit), 0, kMostCredit);
  if (before >= most) return before;
  return CreditToKeep(minutes < most - before ? before + minutes : most);
}

void TopUp(TopUpOutcome* outcome, const LimitsRecord& limits, const TopUpOptions& options,
           const std::vector<QDate>& dates) {
  for (const QDate date : dates) {
    const std::int64_t after = CreditAfter(outcome->credit, TopUpMinutes(limits, date), options);
    const std::int64_t change = after - outcome->credit;
    // Where the cap leaves nothing of one that was missed, it was none; the latest one always is.
    if (change == 0 && date != dates.back()) continue;
    outcome->due.push_back({date, after, change});
    outcome->credit = after;
    RememberTopUp(&outcome->memory, date);
  }
}

void AdoptPlan(TopUpMemory* memory, double nextTime, std::int64_t instant, const QTimeZone& zone) {
  if (memory->plannedTime == nextTime) return;
  memory->plannedTime = nextTime;
  memory->wallTime = ToLocal(instant, zone).millisecond;
  memory->lastDate.reset();
}

void PlanNext(TopUpOutcome* outcome, const Today& today, const QTimeZone& zone) {
  outcome->nextTime = AbsoluteTimeOf(InstantAfter(today, outcome->memory.wallTime, zone));
  outcome->memory.plannedTime = outcome->nextTime;
}

}  // namespace

bool IsClockBelieved(bool isSet, std::chrono::milliseconds sinceBoot) {
  return isSet || sinceBoot >= std::chrono::minutes(10);
}

std::optional<std::int64_t> TopUpInstant(double nextTime) {
  const bool isTime = nextTime >= kStartOfCalendar && nextTime < kEndOfCalendar;
  if (!isTime || nextTime == 0) return std::nullopt;
  return std::llround(nextTime * 1000) + kStartOfAbsoluteTime;
}

std::int64_t TopUpMinutes(const LimitsRecord& limits, QDate date) {
  if (limits.topUpValue <= 0) return 0;
  const bool hasWeekEnd = limits.weekEndValue > 0 && IsUnit(limits.weekEndCoefficient);
  if (hasWeekEnd && date.dayOfWeek() >= Qt::Saturday) {
    return std::int64_t{limits.weekEndValue} * limits.weekEndCoefficient;
  }
  return std::int64_t{limits.topUpValue} *
         (IsUnit(limits.topUpCoefficient) ? limits.topUpCoefficient : 1);
}

TopUpOutcome DecideTopUps(const LimitsRecord& limits, const TopUpOptions& options,
                          const TopUpMemory& memory, std::int64_t credit, const QTimeZone& zone,
                          TopUpClock clock) {
  TopUpOutcome outcome{{}, credit, limits.nextTopUpTime, memory};
  if (!clock.believed || clock.now < 0 || clock.now >= kEndOfClocks) return outcome;
  TopUpMemory& kept = outcome.memory;
  const std::optional<std::int64_t> given = TopUpInstant(limits.nextTopUpTime);
  if (!given) {
    kept.plannedTime = 0;
    kept.lastDate.reset();
    return outcome;
  }
  AdoptPlan(&kept, limits.nextTopUpTime, *given, zone);
  const Today today = TodayAt(clock.now, kept.wallTime, zone);
  const bool isNone = limits.topUpValue <= 0;
  if (isNone) kept.lastDate.reset();
  if (!kept.lastDate) {
    const bool isFarAhead = *given > clock.now + kFarAhead;
    // A value that is set later begins with the next time, too.
    if (isFarAhead || (isNone && *given <= clock.now)) PlanNext(&outcome, today, zone);
    if (isNone || *given > clock.now) return outcome;
    kept.lastDate = DateOfTopUp(*given, kept.wallTime, zone).addDays(-1);
  }
  if (HadTopUp(kept, today.date)) RememberTopUp(&kept, today.date);
  TopUp(&outcome, limits, options, DueDates(kept, options.rollOver, today, zone));
  kept.lastDate = today.Settled();
  PlanNext(&outcome, today, zone);
  return outcome;
}

}  // namespace vardell::server
