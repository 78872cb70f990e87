// Years of them, with outages and wrong clocks, are in HouseholdYearsTest.
#include "server/TopUps.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QStringList>
#include <cmath>
#include <limits>
#include <ostream>
#include <string>

#include "Common Sources/Caps.h"

namespace vardell::server {

void PrintTo(const DueTopUp& due, std::ostream* out) {
  *out << qPrintable(due.date.toString(Qt::ISODate)) << '=' << due.credit << " by " << due.change;
}

namespace {

constexpr std::int64_t kMinute = 60'000;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

QTimeZone Zone(const char* name) {
  return QTimeZone(QByteArray(name));
}

// In seconds since 2001, of a GMT time.
double Absolute(std::int64_t instant) {
  return static_cast<double>(instant) / 1000 - 978'307'200;
}

std::int64_t Gmt(const QString& time) {
  return QDateTime::fromString(time + QStringLiteral(":00Z"), Qt::ISODate).toMSecsSinceEpoch();
}

LimitsRecord HourADay() {
  LimitsRecord limits;
  limits.topUpValue = 60;
  limits.topUpCoefficient = 1;
  return limits;
}

TEST(TopUpsTest, EachDayHasItsKindsValue) {
  const QDate friday(2024, 3, 1);
  const struct {
    const char* behaviour;
    int value, coefficient, weekEndValue, weekEndCoefficient;
    std::int64_t onFriday, onSaturday;
  } rows[] = {
      {"minutes and hours", 30, 1, 2, 60, 30, 120},
      {"without a week-end pair one value for all days", 2, 60, 0, 0, 120, 120},
      {"a week-end value without its coefficient is no pair", 30, 1, 90, 0, 30, 30},
      {"a week-end coefficient without its value is no pair", 30, 1, 0, 60, 30, 30},
      {"odd coefficients mean what they mean when they are absent", 30, 7, 90, -60, 30, 30},
      {"without a value there is none on any day", 0, 60, 90, 1, 0, 0},
      {"a value below nothing is none", -5, 60, 90, 1, 0, 0},
      {"hours beyond 31 bits are not cut here", 2147483647, 60, 1, 1, 128849018820, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.behaviour);
    LimitsRecord limits;
    limits.topUpValue = row.value;
    limits.topUpCoefficient = static_cast<std::int8_t>(row.coefficient);
    limits.weekEndValue = row.weekEndValue;
    limits.weekEndCoefficient = static_cast<std::int8_t>(row.weekEndCoefficient);
    EXPECT_EQ(TopUpMinutes(limits, friday), row.onFriday);
    EXPECT_EQ(TopUpMinutes(limits, friday.addDays(1)), row.onSaturday);
  }
}

// A limit of an hour a day and what happens to it, in words: "next TIME" (an administrator's),
// "value MINUTES", "at TIME DATE,DATE..." (the dates that have their top-up then; none: nothing).
// Times are GMT.
class Course {
 public:
  Course(const char* zone, bool rollOver) : zone_(Zone(zone)) { options_.rollOver = rollOver; }

  void Do(const QString& step) {
    const QStringList words = step.trimmed().split(QLatin1Char(' '));
    if (words[0] == QLatin1String("next")) {
      limits_.nextTopUpTime = Absolute(Gmt(words[1]));
    } else if (words[0] == QLatin1String("value")) {
      limits_.topUpValue = words[1].toInt();
    } else {
      EXPECT_EQ(At(Gmt(words[1])).toStdString(), words.value(2).toStdString());
    }
  }
  double Next() const { return limits_.nextTopUpTime; }

 private:
  QString At(std::int64_t now) {
    const TopUpOutcome outcome = DecideTopUps(limits_, options_, memory_, 0, zone_, {now, true});
    // The memory is kept as text, as a store does.
    const auto kept = ParseTopUpMemory(PrintTopUpMemory(outcome.memory));
    EXPECT_EQ(kept, outcome.memory);
    memory_ = kept.value_or(TopUpMemory());
    limits_.nextTopUpTime = outcome.nextTime;
    QStringList dates;
    for (const DueTopUp& due : outcome.due) dates.append(due.date.toString(QStringLiteral("M-d")));
    return dates.join(QLatin1Char(','));
  }

  QTimeZone zone_;
  TopUpOptions options_;
  LimitsRecord limits_ = HourADay();
  TopUpMemory memory_;
};

TEST(TopUpsTest, OnceForEachLocalDate) {
  const struct {
    const char* behaviour;
    const char* zone;
    bool rollOver;
    const char* steps;
    const char* next;  // afterwards
  } rows[] = {
      // clang-format off
      {"at its time, and no sooner", "UTC", false,
       "next 2024-03-01T06:00; at 2024-03-01T05:59; at 2024-03-01T06:00 3-1; at 2024-03-01T23:59; at 2024-03-02T06:00 3-2", "2024-03-03T06:00"},
      {"of missed ones the latest counts", "UTC", false,
       "next 2024-03-01T06:00; at 2024-03-01T06:00 3-1; at 2024-03-05T05:00 3-4; at 2024-03-05T06:01 3-5; at 2024-03-09T07:00 3-9", "2024-03-10T06:00"},
      {"with roll-over all of them count, in order", "UTC", true,
       "next 2024-03-01T06:00; at 2024-03-03T07:00 3-1,3-2,3-3; at 2024-03-06T05:00 3-4,3-5", "2024-03-06T06:00"},
      {"a next time that is far ahead is made anew, for the next time of day that comes", "UTC", false,
       "next 2031-03-01T06:00; at 2024-03-01T07:00; at 2024-03-02T06:00 3-2", "2024-03-03T06:00"},
      {"... 25 hours are not far", "UTC", false,
       "next 2024-03-02T08:00; at 2024-03-01T07:00; at 2024-03-01T08:00; at 2024-03-02T08:00 3-2", "2024-03-03T08:00"},
      {"an administrator's later time gives no second one today", "UTC", false,
       "next 2024-03-01T06:00; at 2024-03-01T06:00 3-1; next 2024-03-01T20:00; at 2024-03-01T19:00; at 2024-03-01T20:00; at 2024-03-02T20:00 3-2", "2024-03-03T20:00"},
      {"days without a value are not made good", "UTC", true,
       "next 2024-03-01T06:00; at 2024-03-01T06:00 3-1; value 0; at 2024-03-09T07:00; value 60; at 2024-03-09T08:00; at 2024-03-10T06:00 3-10", "2024-03-11T06:00"},
      {"a clock that is set back and forth gives nothing twice", "UTC", false,
       "next 2024-03-01T00:05; at 2024-03-01T00:05 3-1; at 2024-03-02T00:06 3-2; at 2024-03-01T23:00; at 2024-03-02T00:06; at 2024-02-28T12:00 2-28; at 2024-03-02T12:00; at 2024-03-03T00:05 3-3", "2024-03-04T00:05"},
      {"a clock that is set back over its time does not make yesterday good", "UTC", false,
       "next 2024-03-01T06:00; at 2024-03-01T06:00 3-1; at 2024-03-03T10:00 3-3; at 2024-03-03T05:00; at 2024-03-03T10:00; at 2024-03-02T20:00 3-2", "2024-03-03T06:00"},
      {"a clock that was a year ahead blocks nothing but that one date", "UTC", true,
       "next 2024-03-01T06:00; at 2024-03-01T06:00 3-1; at 2034-03-01T05:00 12-29,12-30,12-31,1-1,1-2,1-3,1-4,1-5,1-6,1-7,1-8,1-9,1-10,1-11,1-12,1-13,1-14,1-15,1-16,1-17,1-18,1-19,1-20,1-21,1-22,1-23,1-24,1-25,1-26,1-27,1-28,1-29,1-30,1-31,2-1,2-2,2-3,2-4,2-5,2-6,2-7,2-8,2-9,2-10,2-11,2-12,2-13,2-14,2-15,2-16,2-17,2-18,2-19,2-20,2-21,2-22,2-23,2-24,2-25,2-26,2-27,2-28; at 2024-03-01T07:00; at 2024-03-03T06:00 3-2,3-3; at 2034-02-28T06:00", "2034-03-01T06:00"},
      {"a battery that is empty gives nothing at each start in 1970", "UTC", false,
       "next 2024-03-01T06:00; at 2024-03-01T06:00 3-1; at 1970-01-01T06:01 1-1; at 2024-03-02T06:00 3-2; at 1970-01-01T06:01; at 1970-01-01T00:10; at 2024-03-03T06:00 3-3", "2024-03-04T06:00"},
      {"a midnight that is left out", "America/Havana", false,
       "next 2024-03-09T05:00; at 2024-03-09T05:00 3-9; at 2024-03-10T04:59; at 2024-03-10T05:00 3-10", "2024-03-11T04:00"},
      {"a midnight that exists twice", "America/Havana", false,
       "next 2024-11-02T04:00; at 2024-11-02T04:00 11-2; at 2024-11-03T04:00 11-3; at 2024-11-03T05:00", "2024-11-04T05:00"},
      {"a time that is moved over midnight belongs to its own date", "America/Nuuk", false,
       "next 2024-03-30T01:30; at 2024-03-30T01:30 3-29; at 2024-03-31T00:59; at 2024-03-31T01:00 3-30; at 2024-04-01T00:30 3-31", "2024-04-02T00:30"},
      {"... also where it is the first one", "America/Nuuk", false,
       "next 2031-01-02T01:30; at 2024-03-30T23:00; at 2024-03-31T01:00 3-30", "2024-04-01T00:30"},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.behaviour);
    Course course(row.zone, row.rollOver);
    for (const QString& step : QString::fromLatin1(row.steps).split(QLatin1Char(';'))) {
      SCOPED_TRACE(step.toStdString());
      course.Do(step);
    }
    EXPECT_EQ(course.Next(), Absolute(Gmt(QLatin1String(row.next))));
  }
}

TEST(TopUpsTest, CreditStaysWithinItsBounds) {
  const std::int64_t most = std::numeric_limits<std::int32_t>::max();
  const struct {
    const char* behaviour;
    bool rollOver;
    std::optional<std::int64_t> cap;
    int value;
    std::int64_t before, after;
  } rows[] = {
      {"becomes the value, also when it was more", false, {}, 60, 100, 60},
      {"becomes the value, whatever the cap of growing", false, 10, 60, 0, 60},
      {"grows by the value", true, {}, 60, 100, 160},
      {"grows up to the cap", true, 130, 60, 100, 130},
      {"a cap takes nothing away", true, 50, 60, 100, 100},
      {"a cap below nothing lets nothing grow", true, -7, 60, 0, 0},
      {"never becomes the credit that means spent", false, {}, 12345, 5, 12344},
      {"never grows to it", true, {}, 45, 12300, 12344},
      {"never beyond 31 bits", true, {}, 60, most - 5, most},
      {"a credit below nothing counts as nothing", true, {}, 60, -10, 60},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.behaviour);
    LimitsRecord limits = HourADay();
    limits.topUpValue = row.value;
    limits.nextTopUpTime = Absolute(kDay * 20'000);
    const TopUpOutcome outcome = DecideTopUps(limits, {row.rollOver, row.cap}, {}, row.before,
                                              Zone("UTC"), {kDay * 20'000, true});
    ASSERT_EQ(outcome.due.size(), 1u);
    EXPECT_EQ(outcome.credit, row.after);
    EXPECT_EQ(outcome.due[0].credit, row.after);
    EXPECT_EQ(outcome.due[0].change, row.after - row.before);
  }
}

TEST(TopUpsTest, WhatIsNoTimeIsNone) {
  const std::int64_t now = kDay * 20'000;
  const double inf = std::numeric_limits<double>::infinity();
  for (const double time : {0.0, std::nan(""), inf, -inf, 1e300, -1e300, -63'113'904'001.0}) {
    LimitsRecord limits = HourADay();
    limits.nextTopUpTime = time;
    const auto outcome = DecideTopUps(limits, {true, {}}, {}, 7, Zone("UTC"), {now, true});
    EXPECT_TRUE(outcome.due.empty()) << time;
    EXPECT_EQ(outcome.credit, 7);
    EXPECT_TRUE(std::isnan(time) || outcome.nextTime == time);
  }
  LimitsRecord limits = HourADay();
  limits.nextTopUpTime = -63'113'904'000.0;  // the year 1
  EXPECT_EQ(DecideTopUps(limits, {true, {}}, {}, 7, Zone("UTC"), {now, true}).due.size(),
            static_cast<std::size_t>(kMaxMissedTopUps + 1));
  const auto extremes = {std::numeric_limits<std::int64_t>::min(), std::int64_t{-1},
                         std::numeric_limits<std::int64_t>::max()};
  for (const std::int64_t clock : extremes) {
    const auto outcome = DecideTopUps(limits, {}, {}, 7, Zone("Asia/Beirut"), {clock, true});
    EXPECT_TRUE(outcome.due.empty() && outcome.nextTime == limits.nextTopUpTime) << clock;
  }
  EXPECT_TRUE(DecideTopUps(limits, {}, {}, 7, Zone("UTC"), {now, false}).due.empty());
}

TEST(TopUpsTest, AClockThatNobodySetIsBelievedAfterTenMinutes) {
  using std::chrono::minutes;
  EXPECT_TRUE(IsClockBelieved(true, minutes(0)));
  EXPECT_FALSE(IsClockBelieved(false, minutes(10) - std::chrono::milliseconds(1)));
  EXPECT_TRUE(IsClockBelieved(false, minutes(10)));
}

TEST(TopUpsTest, AMemoryThatIsDamagedIsRefused) {
  const char* const texts[] = {
      "",
      "[]",
      "{}",
      R"({"had":[],"plannedTime":"x","wallTime":0})",
      R"({"had":[],"plannedTime":1,"wallTime":86400000})",
      R"({"had":["2024-01-02/2024-01-01"],"plannedTime":1,"wallTime":0})",
      R"({"had":["2024-01-01"],"plannedTime":1,"wallTime":0,"lastDate":"2024-02-30"})"};
  for (const char* text : texts) EXPECT_FALSE(ParseTopUpMemory(QLatin1String(text))) << text;
}

TEST(TopUpsTest, ADateThatComesAgainAndAgainIsNotForgotten) {
  LimitsRecord limits = HourADay();
  limits.nextTopUpTime = Absolute(kHour);
  TopUpMemory memory;
  int topUps = 0;
  const auto decide = [&](std::int64_t now) {
    const auto outcome = DecideTopUps(limits, {}, memory, 0, Zone("UTC"), {now, true});
    topUps += static_cast<int>(outcome.due.size());
    limits.nextTopUpTime = outcome.nextTime;
    memory = outcome.memory;
  };
  for (int week = 1; week <= 200; ++week) {
    decide(week * 7 * kDay + 2 * kHour);
    decide(2 * kHour);  // the empty battery's
  }
  EXPECT_EQ(topUps, 201);
}

TEST(TopUpsTest, TheRangesOfDatesAreBoundedAndTheUsedOnesStay) {
  TopUpMemory memory;
  const QDate first(2000, 1, 1);
  for (int year = 0; year < 500; ++year) {
    RememberTopUp(&memory, first.addYears(year));
    RememberTopUp(&memory, first);
  }
  EXPECT_EQ(memory.had.size(), kMaxTopUpDateRanges);
  EXPECT_TRUE(HadTopUp(memory, first));
  EXPECT_TRUE(HadTopUp(memory, first.addYears(499)));
  EXPECT_FALSE(HadTopUp(memory, first.addYears(1)));
}

}  // namespace
}  // namespace vardell::server
