#include "server/Schedules.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QJsonDocument>
#include <QStringList>
#include <algorithm>
#include <random>
#include <string>

#include "Common Sources/Caps.h"
#include "limits/Curfew.h"
#include "link/LimitsRecord.h"
#include "server/ScheduleJson.h"

namespace vardell::server {
namespace {

constexpr std::int64_t kSecond = 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kDay = 1440 * kMinute;

QTimeZone Zone(const char* name) {
  return QTimeZone(QByteArray(name));
}

QJsonObject Json(const QString& text) {
  return QJsonDocument::fromJson(text.toUtf8()).object();
}

// Windows in the form of a test: "08:00-12:00 22:00-02:00".
QString Windows(const QString& text) {
  QStringList items;
  for (const QString& window : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
    const QStringList ends = window.split(QLatin1Char('-'));
    items.append(QStringLiteral(R"({"start":"%1","stop":"%2"})").arg(ends[0], ends[1]));
  }
  return QLatin1Char('[') + items.join(QLatin1Char(',')) + QLatin1Char(']');
}

// The seven days, divided by '/', and holidays "FIRST LAST WINDOWS", divided by ';'.
QJsonObject ScheduleOf(const QString& days, const QString& holidays = {}) {
  const char* const names[] = {"monday", "tuesday",  "wednesday", "thursday",
                               "friday", "saturday", "sunday"};
  QStringList week;
  for (const QString& day : days.split(QLatin1Char('/'))) {
    week.append(QStringLiteral("\"%1\":%2").arg(QLatin1String(names[week.size()]), Windows(day)));
  }
  QStringList free;
  for (const QString& holiday : holidays.split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
    free.append(QStringLiteral(R"({"name":"Free","first":"%1","last":"%2","windows":%3})")
                    .arg(holiday.section(QLatin1Char(' '), 0, 0),
                         holiday.section(QLatin1Char(' '), 1, 1),
                         Windows(holiday.section(QLatin1Char(' '), 2))));
  }
  return Json(QStringLiteral(R"({"days":{%1},"holidays":[%2]})")
                  .arg(week.join(QLatin1Char(',')), free.join(QLatin1Char(','))));
}

Schedule Parsed(const QJsonObject& object) {
  Schedule schedule;
  const auto problem = ParseSchedule(object, &schedule);
  EXPECT_FALSE(problem) << qPrintable(problem->field + QLatin1Char(' ') + problem->message);
  return schedule;
}

const char* const kOdd =
    "15:00-20:00/22:00-02:00/00:00-24:00/08:00-12:00 14:00-18:00 23:00-01:00//"
    "00:00-00:30 02:15-02:45 20:00-24:00/00:00-03:00 23:59-00:01";
const char* const kOddHolidays =
    "2024-05-01 2024-05-20 ;2024-03-31 2024-04-05 01:30-02:30 "
    "18:00-17:00;2024-05-10 2024-06-01 10:00-11:00";
const char* const kAlways =
    "00:00-24:00/00:00-24:00/00:00-24:00/00:00-24:00/00:00-24:00/00:00-24:00/00:00-24:00";

TEST(SchedulesTest, JsonGoesThereAndBack) {
  const Schedule schedule = Parsed(ScheduleOf(QLatin1String(kOdd), QLatin1String(kOddHolidays)));
  EXPECT_EQ(schedule.days[1], (DayWindows{{22 * 60, 26 * 60}}));
  EXPECT_EQ(schedule.days[2], (DayWindows{{0, 1440}}));
  EXPECT_EQ(schedule.days[4], DayWindows());
  EXPECT_EQ(schedule.holidays.size(), 3u);
  EXPECT_EQ(Parsed(PrintSchedule(schedule)), schedule);
  QJsonObject midnight = ScheduleOf(QStringLiteral("22:00-00:00//////"));
  midnight.remove(QStringLiteral("holidays"));
  EXPECT_EQ(Parsed(midnight).days[0], (DayWindows{{22 * 60, 1440}}));
}

TEST(SchedulesTest, ProblemsNameTheirField) {
  const auto week = [](const char* monday) {
    return QStringLiteral(R"({"days":{"monday":%1,"tuesday":[],"wednesday":[],"thursday":[],)"
                          R"("friday":[],"saturday":[],"sunday":[]})")
        .arg(QLatin1String(monday));
  };
  const auto day = [&](const char* monday) { return week(monday) + QLatin1Char('}'); };
  const auto holidays = [&](const QString& list) {
    return week("[]") + QStringLiteral(R"(,"holidays":)") + list + QLatin1Char('}');
  };
  const auto holiday = [&](const char* fields) {
    return holidays(QStringLiteral("[{%1}]").arg(QLatin1String(fields)));
  };
  const auto many = [](const QString& item, std::size_t count) {
    return QLatin1Char('[') + (item + QLatin1Char(',')).repeated(int(count)) + item +
           QLatin1Char(']');
  };
  const struct {
    QString text;
    const char* field;
  } rows[] = {
      {QStringLiteral("{}"), "days"},
      {QStringLiteral(R"({"days":[]})"), "days"},
      {QStringLiteral(R"({"days":{"monday":[]}})"), "days.tuesday"},
      {QStringLiteral(R"({"days":{"Monday":[]}})"), "days.Monday"},
      {week("[]") + QStringLiteral(R"(,"zone":1})"), "zone"},
      {day("null"), "days.monday"},
      {day("[7]"), "days.monday[0]"},
      {day(R"([{"start":"08:00"}])"), "days.monday[0].stop"},
      {day(R"([{"start":"08:00","stop":"9:00"}])"), "days.monday[0].stop"},
      {day(R"([{"start":"08:00","stop":"24:01"}])"), "days.monday[0].stop"},
      {day(R"([{"start":"24:00","stop":"02:00"}])"), "days.monday[0].start"},
      {day(R"([{"start":480,"stop":"09:00"}])"), "days.monday[0].start"},
      {day(R"([{"start":"08:60","stop":"09:00"}])"), "days.monday[0].start"},
      {day(R"([{"start":"08:00","stop":"08:00"}])"), "days.monday[0].stop"},
      {day(R"([{"start":"08:00","stop":"09:00","name":"x"}])"), "days.monday[0].name"},
      {day(R"([{"start":"08:00","stop":"09:00"},{"start":"08:59","stop":"10:00"}])"),
       "days.monday[1].start"},
      {day(R"([{"start":"22:00","stop":"02:00"},{"start":"23:00","stop":"23:30"}])"),
       "days.monday[1].start"},
      {week(qPrintable(many(Windows(QStringLiteral("08:00-09:00")), 8))) + QLatin1Char('}'),
       "days.monday"},
      {holidays(QStringLiteral("{}")), "holidays"},
      {holidays(many(QStringLiteral("1"), kMaxScheduleHolidays)), "holidays"},
      {holiday(R"("first":"2024-01-01","windows":[])"), "holidays[0].name"},
      {holiday(R"("name":"","first":"2024-01-01","windows":[])"), "holidays[0].name"},
      {holiday(R"("name":5,"first":"2024-01-01","windows":[])"), "holidays[0].name"},
      {holiday(R"("name":"x","first":"2024-02-30","windows":[])"), "holidays[0].first"},
      {holiday(R"("name":"x","first":"2024-1-1","windows":[])"), "holidays[0].first"},
      {holiday(R"("name":"x","first":"2024-01-02","last":"2024-01-01","windows":[])"),
       "holidays[0].last"},
      {holiday(R"("name":"x","first":"2024-01-02","last":null,"windows":[])"), "holidays[0].last"},
      {holiday(R"("name":"x","first":"2024-01-02")"), "holidays[0].windows"},
      {holiday(R"("name":"x","first":"2024-01-02","windows":[{}])"),
       "holidays[0].windows[0].start"},
  };
  for (const auto& row : rows) {
    Schedule schedule;
    schedule.days[3] = {{1, 2}};
    const auto problem = ParseSchedule(Json(row.text), &schedule);
    ASSERT_TRUE(problem) << qPrintable(row.text);
    EXPECT_EQ(problem->field, QLatin1String(row.field)) << qPrintable(row.text);
    EXPECT_FALSE(problem->message.isEmpty());
    EXPECT_EQ(schedule.days[3], (DayWindows{{1, 2}})) << "left alone";
  }
}

std::int64_t At(const char* local, const QTimeZone& zone) {
  QDateTime time = QDateTime::fromString(QLatin1String(local), QStringLiteral("yyyy-MM-dd HH:mm"));
  time.setTimeZone(zone);
  return time.toMSecsSinceEpoch();
}

std::string Text(const CurfewKeys& keys) {
  return QStringLiteral("%1-%2 %3-%4")
      .arg(keys.weekDay.start)
      .arg(keys.weekDay.stop)
      .arg(keys.weekEnd.start)
      .arg(keys.weekEnd.stop)
      .toStdString();
}

TEST(SchedulesTest, KeysSayTheWindowThatCounts) {
  const Schedule schedule = Parsed(
      ScheduleOf(QStringLiteral("15:00-20:00/22:00-02:00/18:00-19:00/08:00-12:00 14:00-18:00/"
                                "23:00-01:00/10:00-22:00/00:00-03:00 20:00-02:00"),
                 QStringLiteral("2024-06-10 2024-06-10 ;2024-06-12 2024-06-12 00:00-24:00")));
  const struct {
    const char* behaviour;
    const char* now;  // the 3rd of June 2024 is a Monday
    const char* keys;
  } rows[] = {
      // clang-format off
      {"before, in and after the only window: that one", "2024-06-03 08:00", "900-1200 900-1200"},
      {"... after it", "2024-06-03 20:00", "900-1200 900-1200"},
      {"between two windows the next", "2024-06-06 12:00", "840-1080 840-1080"},
      {"what reaches in from yesterday", "2024-06-05 01:59", "0-120 0-120"},
      {"... and the next one afterwards", "2024-06-05 02:00", "1080-1140 1080-1140"},
      {"a window over midnight is all of the day from its start on", "2024-06-04 22:00", "0-1440 0-1440"},
      {"... but not before", "2024-06-04 21:59", "1320-1440 1320-1440"},
      {"on a Friday also the first hours of Saturday", "2024-06-07 23:30", "1380-1440 0-60"},
      {"windows that touch at midnight are one", "2024-06-08 09:00", "600-1320 600-1320"},
      {"on a Sunday also what reaches into Monday", "2024-06-09 21:00", "0-120 1200-1440"},
      {"a closed holiday keeps what reaches in", "2024-06-10 01:00", "0-120 0-120"},
      {"... and is closed from then on", "2024-06-10 02:00", "1-120 1-120"},
      {"a window that begins at midnight is not missed by keys of the minute before", "2024-06-11 23:59", "0-1440 0-1440"},
      // clang-format on
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Text(TodaysKeys(schedule, Zone("UTC"), At(row.now, Zone("UTC")))), row.keys)
        << row.behaviour;
  }
}

TEST(SchedulesTest, CreditStaysWithinItsBounds) {
  const Schedule always = Parsed(ScheduleOf(QLatin1String(kAlways)));
  const std::pair<std::int64_t, int> rows[] = {
      {-7, 0}, {12345, 12344}, {std::int64_t{1} << 40, 2147483647}};
  for (const auto& [credit, handed] : rows) {
    EXPECT_EQ(CreditToHand(credit, always, Zone("UTC"), 0, HandedAfter::Start), handed);
  }
}

struct Place {
  const char* zone;
  const char* days;
  const char* holidays;
};

const Place kPlaces[] = {
    {"Europe/Berlin", kOdd, kOddHolidays},
    {"Australia/Lord_Howe", kOdd, kOddHolidays},
    {"America/Havana",
     "22:00-02:00/22:00-00:00/00:00-00:30/23:00-01:00/20:00-24:00/22:00-06:00/"
     "00:00-01:00 08:00-10:00 10:00-22:00",
     "2024-12-24 2025-01-06 10:00-03:00"},
    {"America/New_York", kAlways, "2024-07-04 2024-07-04 ;2024-11-03 2024-11-03 00:00-01:30"},
};

// By the record itself and Qt's local times alone.
bool NaiveAllowed(const Schedule& schedule, const QDateTime& local) {
  const auto covers = [&](QDate date, int minute) {
    const DayWindows* windows = &schedule.days[static_cast<std::size_t>(date.dayOfWeek() - 1)];
    for (auto holiday = schedule.holidays.rbegin(); holiday != schedule.holidays.rend();
         ++holiday) {
      if (date >= holiday->first && date <= holiday->last) windows = &holiday->windows;
    }
    return std::any_of(windows->begin(), windows->end(), [&](const ScheduleWindow& window) {
      return window.start <= minute && minute < window.stop;
    });
  };
  const int minute = local.time().hour() * 60 + local.time().minute();
  return covers(local.date(), minute) || covers(local.date().addDays(-1), minute + 1440);
}

bool AgentAllows(const Schedule& schedule, const QTimeZone& zone, std::int64_t fetched,
                 const QDateTime& local) {
  const auto limits = WithCurfewKeys(LimitsRecord(), TodaysKeys(schedule, zone, fetched));
  const CurfewDecision decision = DecideCurfew(limits, false, local);
  EXPECT_FALSE(decision.killAfterAlert) << "one bound is breached at most";
  return !decision.alert;
}

TEST(SchedulesTest, AYearOfKeysAndCreditIsTheNaiveSchedule) {
  for (const Place& place : kPlaces) {
    SCOPED_TRACE(place.zone);
    const QTimeZone zone = Zone(place.zone);
    const Schedule schedule =
        Parsed(ScheduleOf(QLatin1String(place.days), QLatin1String(place.holidays)));
    const std::int64_t from = At("2024-02-01 00:00", zone);
    int allowedTimes = 0;
    std::int64_t step = kMinute;
    for (std::int64_t now = from; now < from + 366 * kDay; now += step) {
      const QDateTime local = QDateTime::fromMSecsSinceEpoch(now, zone);
      const bool isNight = local.time() >= QTime(23, 50) || local.time() < QTime(0, 5);
      step = (isNight ? 1 : 7) * kMinute;
      const bool isAllowed = NaiveAllowed(schedule, local);
      allowedTimes += isAllowed ? 1 : 0;
      ASSERT_EQ(AgentAllows(schedule, zone, now, local), isAllowed) << qPrintable(local.toString());
      if (isAllowed || local.time() >= QTime(0, 1)) {
        ASSERT_EQ(AgentAllows(schedule, zone, now - kMinute, local), isAllowed)
            << "keys of the minute before, " << qPrintable(local.toString());
      }
      const std::int64_t minutes = MinutesToWindowsEnd(schedule, zone, now);
      ASSERT_EQ(minutes > 0, isAllowed) << qPrintable(local.toString());
      if (!isAllowed || minutes == kNoEndInSight) continue;
      const auto allowedIn = [&](std::int64_t later) {
        return NaiveAllowed(schedule, QDateTime::fromMSecsSinceEpoch(now + later * kMinute, zone));
      };
      ASSERT_TRUE(allowedIn(minutes - 1) && !allowedIn(minutes)) << qPrintable(local.toString());
    }
    EXPECT_GT(allowedTimes, 1000);
  }
}

// Launches with more credit than the window has minutes, as an agent counts them.
TEST(SchedulesTest, ALaunchEndsWithItsWindowAndIsWarnedBefore) {
  std::mt19937 random(1);
  int launches = 0;
  for (const Place& place : kPlaces) {
    const QTimeZone zone = Zone(place.zone);
    const Schedule schedule =
        Parsed(ScheduleOf(QLatin1String(place.days), QLatin1String(place.holidays)));
    for (int round = 0; round < 400; ++round) {
      const std::int64_t start = At("2024-02-01 00:00", zone) +
                                 static_cast<std::int64_t>(random() % (366 * 86400u)) * kSecond;
      const auto end = AllowedUntil(schedule, zone, start);
      const auto hand = [&](std::int64_t at, HandedAfter after) {
        return CreditToHand(1'000'000, schedule, zone, at, after);
      };
      std::int32_t credit = hand(start, HandedAfter::Start);
      if (!end || *end == kNoEndInSight || credit < 6 || credit > 1500) continue;
      ++launches;
      std::string warnings;
      std::int64_t now = start + kSecond;
      for (; credit > 0; now += kMinute) {
        if (credit == 5 || credit == 1) warnings += std::to_string(credit);
        const std::int64_t late = static_cast<std::int64_t>(random() % 500);  // the network
        credit = hand(now + late, HandedAfter::Report);
      }
      EXPECT_LE(now, *end + 5 * kSecond);
      EXPECT_GT(now, *end - 60 * kSecond);
      EXPECT_EQ(warnings, "51");
    }
  }
  EXPECT_GT(launches, 200);
}

}  // namespace
}  // namespace vardell::server
