#include "limits/Curfew.h"

#include <gtest/gtest.h>

#include <QTimeZone>
#include <tuple>

namespace vardell {
namespace {

using Kill = CurfewDecision::Kill;
using namespace Qt::StringLiterals;

enum Day { Monday = 1, Tuesday = 2, Friday = 5, Saturday = 6, Sunday = 7 };

// 1 January 2024 was a Monday.
QDateTime At(int day, int hour, int minute) {
  return QDateTime(QDate(2024, 1, day), QTime(hour, minute, 30), Qt::UTC);
}

// 2024 in Berlin, by the hour of Greenwich.
QDateTime Berlin(int month, int day, int hour, int minute) {
  const QDateTime utc(QDate(2024, month, day), QTime(hour, minute, 30), Qt::UTC);
  return utc.toTimeZone(QTimeZone("Europe/Berlin"));
}

LimitsRecord Hours(int start, int stop) {
  LimitsRecord limits;
  limits.weekDayCurfewEnabled = limits.weekEndCurfewEnabled = 1;
  limits.weekDayStart = limits.weekEndStart = start;
  limits.weekDayStop = limits.weekEndStop = stop;
  return limits;
}

QString Alert(bool isEarly, std::int32_t minutes) {
  return (isEarly ? u"early %1"_s : u"late %1"_s).arg(minutes);
}

TEST(Curfew, DecidesByDayHourOnTheWallAndWarning) {
  using enum CurfewDecision::Kill;
  const LimitsRecord day = Hours(480, 1200);
  const LimitsRecord never = Hours(0, 0);
  const LimitsRecord night = Hours(0, 150);
  const QString early = Alert(true, 480), late = Alert(false, 1200), nightLate = Alert(false, 150);
  const LimitsRecord backwards = Hours(1200, 480);
  LimitsRecord weekEndOnly = day;
  weekEndOnly.weekDayCurfewEnabled = 0;
  LimitsRecord weekDayOnly = day;
  weekDayOnly.weekEndCurfewEnabled = 0;
  const QString none;
  const struct {
    const char* behaviour;
    LimitsRecord limits;
    bool warned;
    QDateTime now;
    QString alert;  // "early 480", "late 1200"
    Kill kill;
  } kRows[] = {
      {"allowed from the start", day, false, At(Tuesday, 8, 0), none, None},
      {"allowed in the last minute", day, false, At(Tuesday, 19, 59), none, None},
      {"too early warns", day, false, At(Tuesday, 7, 58), early, None},
      {"too early again ends the application", day, true, At(Tuesday, 7, 59), none, Entry},
      {"too late warns", day, false, At(Friday, 20, 0), late, None},
      {"too late again ends the session", day, true, At(Friday, 20, 1), none, Session},
      {"midnight is early", day, false, At(Monday, 0, 0), early, None},
      {"23:59 is late", day, false, At(Monday, 23, 59), late, None},
      {"week-end, too early warns", day, false, At(Saturday, 7, 0), early, None},
      {"week-end, too early again ends the session", day, true, At(Saturday, 7, 1), none, Session},
      {"no curfew on week-days", weekEndOnly, true, At(Friday, 3, 0), none, None},
      {"but on Saturday", weekEndOnly, false, At(Saturday, 3, 0), early, None},
      {"no curfew on week-ends", weekDayOnly, true, At(Sunday, 3, 0), none, None},
      {"0 to 0 allows nothing", never, false, At(Monday, 0, 0), Alert(false, 0), None},
      {"a stop of 1440 is never reached", Hours(0, 1440), false, At(Monday, 23, 59), none, None},
      {"both bounds end the session", backwards, false, At(Monday, 12, 0), Alert(true, 1200),
       Session},
      {"both again, week-day", backwards, true, At(Monday, 12, 0), none, EntryThenSession},
      {"both again, week-end", backwards, true, At(Sunday, 12, 0), none, Session},
      {"spring, before two is allowed", night, false, Berlin(3, 31, 0, 59), none, None},
      {"spring, three is too late", night, false, Berlin(3, 31, 1, 0), nightLate, None},
      {"autumn, half past two", night, false, Berlin(10, 27, 0, 30), nightLate, None},
      {"autumn, two again", night, false, Berlin(10, 27, 1, 0), none, None},
      {"autumn, half past two again", night, false, Berlin(10, 27, 1, 30), nightLate, None},
      {"bounds beyond all sense", Hours(2147483647, -2147483647 - 1), false, At(Monday, 12, 0),
       Alert(true, 2147483647), Session},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.behaviour);
    const CurfewDecision decision = DecideCurfew(row.limits, row.warned, row.now);
    EXPECT_EQ(decision.alert ? Alert(decision.alertIsEarly, decision.boundaryMinutes) : none,
              row.alert);
    EXPECT_EQ(decision.kill, row.kill);
    EXPECT_EQ(decision.warned, row.warned || decision.alert);
    EXPECT_EQ(decision.killAfterAlert, decision.alert && row.kill != None);
  }
}

class CurfewCheck : public ::testing::Test {
 protected:
  CurfewCheck() {
    entry->pid = 40;
    actions.localNow = [this] { return now; };
    actions.showAlert = [this](const WatchedAppPtr& about, bool isEarly, std::int32_t minutes,
                               std::function<void()> seen) {
      EXPECT_EQ(about, entry);
      happened << Alert(isEarly, minutes);
      dismiss = std::move(seen);
    };
    actions.killProcess = [this](int pid) { happened << u"kill %1"_s.arg(pid); };
    actions.loginPid = [this] { return loginPid; };
  }

  QStringList CheckAt(int day, int hour, int minute) {
    now = At(day, hour, minute);
    CheckCurfew(entry, actions);
    return std::exchange(happened, {});
  }
  QStringList Dismiss() {
    dismiss();
    return std::exchange(happened, {});
  }

  WatchedAppPtr entry = std::make_shared<WatchedApp>();
  std::int32_t loginPid = 77;
  QDateTime now;
  CurfewActions actions;
  std::function<void()> dismiss;
  QStringList happened;
};

const QStringList kNothing;
const QStringList kKillEntry{u"kill 40"_s};
const QStringList kKillSession{u"kill 77"_s};
const QStringList kEarly{Alert(true, 480)};

TEST_F(CurfewCheck, TheWarningOfTheMorningStillCountsInTheEvening) {
  entry->limits = Hours(480, 1200);
  EXPECT_EQ(CheckAt(Tuesday, 7, 58), kEarly);
  EXPECT_TRUE(entry->lastMinuteUsed);
  EXPECT_EQ(Dismiss(), kNothing);
  EXPECT_EQ(CheckAt(Tuesday, 7, 59), kKillEntry);
  EXPECT_EQ(CheckAt(Tuesday, 8, 0), kNothing);
  EXPECT_EQ(CheckAt(Tuesday, 20, 0), kKillSession);
}

TEST_F(CurfewCheck, ABreachOfBothBoundsWaitsForItsAlert) {
  entry->limits = Hours(1200, 480);
  EXPECT_EQ(CheckAt(Monday, 12, 0), QStringList{Alert(true, 1200)});
  loginPid = 78;
  EXPECT_EQ(Dismiss(), QStringList{u"kill 78"_s});
  EXPECT_EQ(Dismiss(), kNothing);
}

TEST_F(CurfewCheck, ButNotLongerThanAMinute) {
  entry->limits = Hours(1200, 480);
  (void)CheckAt(Sunday, 12, 0);
  entry->limits = LimitsRecord();
  EXPECT_EQ(CheckAt(Sunday, 12, 1), kKillSession) << "although the curfew was lifted";
  EXPECT_EQ(Dismiss(), kNothing);
  EXPECT_EQ(CheckAt(Sunday, 12, 2), kNothing);
}

TEST_F(CurfewCheck, BothBoundsAgainEndTheApplicationThenTheSession) {
  entry->limits = Hours(1200, 480);
  (void)CheckAt(Monday, 12, 0);
  EXPECT_EQ(CheckAt(Monday, 12, 1), kKillEntry + kKillSession);
}

}  // namespace
}  // namespace vardell
