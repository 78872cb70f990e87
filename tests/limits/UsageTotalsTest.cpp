#include "limits/UsageTotals.h"

#include <gtest/gtest.h>

#include <QTimeZone>
#include <limits>

#include "Common Sources/TimeZones.h"

namespace vardell {
namespace {

QDateTime At(const char* zone, const char* isoTime) {
  const QDateTime time = QDateTime::fromString(QLatin1String(isoTime), Qt::ISODate);
  return {time.date(), time.time(), QTimeZone(zone)};
}

// Ten minutes to the power of their age: each digit of a total, from the right, tells how often
// today, yesterday and so on were counted.
QVariantMap NineDaysUntil(const QDate& today) {
  QVariantMap usage;
  for (int age = 0, minutes = 1; age < 9; ++age, minutes *= 10)
    usage.insert(UsageDayKey(today.addDays(-age)), minutes);
  return usage;
}

TEST(UsageTotalsTest, CountsEachDayOfAWeekOnceButForClockChangesNearMidnight) {
  struct Row {
    const char* name;
    const char* zone;
    const char* now;
    std::int32_t total;
  };
  constexpr Row kRows[] = {
      {"eight days of nine", "UTC", "2009-03-25T12:00:00", 11111111},
      {"over the end of a year", "Europe/Berlin", "2010-01-03T00:00:00", 11111111},
      {"over 29 February", "America/New_York", "2008-03-03T08:00:00", 11111111},
      {"the zone's day", "Pacific/Kiritimati", "2009-07-01T01:00:00", 11111111},
      {"spring, by day", "Europe/Berlin", "2009-03-30T12:00:00", 11111111},
      {"spring, yesterday is left out", "Europe/Berlin", "2009-03-30T00:59:00", 111111101},
      {"spring, 01:00", "Europe/Berlin", "2009-03-30T01:00:00", 11111111},
      {"spring, two days on", "Europe/Berlin", "2009-03-31T00:30:00", 111111011},
      {"autumn, by day", "Europe/Berlin", "2009-10-25T12:00:00", 11111111},
      {"autumn, 22:59", "Europe/Berlin", "2009-10-25T22:59:00", 11111111},
      {"autumn, today counts twice", "Europe/Berlin", "2009-10-25T23:00:00", 1111112},
      {"autumn, two days on", "Europe/Berlin", "2009-10-26T23:30:00", 1111121},
      {"half an hour in spring, 00:29", "Australia/Lord_Howe", "2009-10-05T00:29:00", 111111101},
      {"half an hour in spring, 00:30", "Australia/Lord_Howe", "2009-10-05T00:30:00", 11111111},
      {"half an hour in autumn, 23:29", "Australia/Lord_Howe", "2009-04-05T23:29:00", 11111111},
      {"half an hour in autumn, 23:30", "Australia/Lord_Howe", "2009-04-05T23:30:00", 1111112},
  };
  for (const Row& row : kRows) {
    const QDateTime now = At(row.zone, row.now);
    ASSERT_TRUE(now.isValid()) << row.name;
    const QVariantMap usage = NineDaysUntil(now.date());
    EXPECT_EQ(SumUsageForPeriod(&usage, kUsageWeek, now), row.total) << row.name;
  }
}

TEST(UsageTotalsTest, APeriodCountsTheNumbersOfItsDays) {
  struct Row {
    const char* name;
    QVariantMap usage;
    std::int32_t period;
    std::int32_t total;
  };
  constexpr auto kMost = std::numeric_limits<std::int32_t>::max();
  constexpr auto kLeast = std::numeric_limits<std::int32_t>::min();
  const auto day = [](const char* key, const QVariant& value) {
    return QVariantMap{{QLatin1String(key), value}};
  };
  const QVariantMap mixed{{"5-3-2009", 1},  {"4-3-2009", 2},        {"26-2-2009", 4},
                          {"25-2-2009", 8}, {"3-2-2009", 16},       {"2-2-2009", 32},
                          {"6-3-2009", 64}, {"no day at all", 128}, {"1-1-1970", 256}};
  const QVariantMap words{{"5-3-2009", "7"}, {"4-3-2009", true}, {"3-3-2009", 3}};
  const QVariantMap large{{"5-3-2009", kMost}, {"4-3-2009", 1}};
  const Row kRows[] = {
      {"today", mixed, 0, 1},
      {"today and seven days", mixed, 1, 1 + 2 + 4},
      {"today and thirty days", mixed, 2, 1 + 2 + 4 + 8 + 16},
      {"everything", mixed, 3, 511},
      {"an unknown period is today", mixed, 4, 1},
      {"and so is a negative one", mixed, -1, 1},
      {"a padded key is no day", day("05-03-2009", 9), 2, 0},
      {"but counts among all", day("05-03-2009", 9), 3, 9},
      {"text and truth values are no numbers", words, 3, 3},
      {"nor are they today's", words, 1, 3},
      {"a fraction is cut", day("5-3-2009", 2.9), 0, 2},
      {"the upper bits are cut", day("5-3-2009", (qlonglong{1} << 32) + 5), 0, 5},
      {"the sum of days wraps around", large, 1, kLeast},
      {"the sum of all wraps around", large, 3, kLeast},
      {"an empty history", {}, 3, 0},
  };
  const QDateTime now = At("Europe/Berlin", "2009-03-05T12:00:00");
  for (const Row& row : kRows)
    EXPECT_EQ(SumUsageForPeriod(&row.usage, row.period, now), row.total) << row.name;
  for (std::int32_t period = 0; period <= 4; ++period)
    EXPECT_EQ(SumUsageForPeriod(nullptr, period, now), 0) << period;
}

TEST(UsageTotalsTest, TheClockIsReadInTheDefaultZone) {
  const auto today = [] {
    return QDateTime::currentDateTimeUtc().toTimeZone(GetDefaultTimeZone()).date();
  };
  QVariantMap usage;
  std::int32_t total = 0;
  QDate before;
  do {  // again, should midnight have come meanwhile
    before = today();
    usage = NineDaysUntil(before);
    total = SumUsageForPeriod(&usage, kUsageToday);
  } while (today() != before);
  EXPECT_EQ(total, 1);
}

TEST(UsageTotalsTest, ATotalIsSaidInHoursAndMinutes) {
  const QVariantMap usage{{"5-3-2009", 65}, {"4-3-2009", 60}};
  const QDateTime now = At("Europe/Berlin", "2009-03-05T12:00:00");
  const auto words = [&](const QVariantMap* history, std::int32_t period) {
    return CopyUsageForPeriodString(history, period, now).toStdString();
  };
  EXPECT_EQ(words(&usage, kUsageToday), "1 hour 5 minutes");
  EXPECT_EQ(words(&usage, kUsageWeek), "2 hours 5 minutes");
  EXPECT_EQ(words(nullptr, kUsageWeek), "0 minute");
  EXPECT_EQ(CopyUsageForPeriodString(&usage, kUsageAll).toStdString(), "2 hours 5 minutes");
}

}  // namespace
}  // namespace vardell
