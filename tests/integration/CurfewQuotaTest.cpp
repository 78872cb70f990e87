// The real agent when the hour or the size of the home folder forbids to go on. The hour is made by
// the zone, which only the agent has.
#include <QDateTime>

#include "tests/integration/ScreenFixture.h"

namespace vardell::test {
namespace {

struct Place {
  std::string zone;  // for TZ
  QTime now;
  QString In(int minutes) const { return now.addSecs(60 * minutes).toString(u"HH:mm"); }
};

// Where it is a day of the week, as early or as late as can be, and not about midnight.
Place FindWeekDay(bool early) {
  Place found;
  for (int shift = -1470; shift <= 1470; shift += 30) {
    const QDateTime there = QDateTime::currentDateTimeUtc().addSecs(60 * shift);
    const QTime now = there.time();
    const bool isWeekDay = there.date().dayOfWeek() < Qt::Saturday;
    if (!isWeekDay || now < QTime(0, 10) || now > QTime(23, 45)) continue;
    if (found.now.isValid() && (now < found.now) != early) continue;
    const QString offset = shift < 0 ? u"<there>+%1:%2"_s : u"<there>-%1:%2"_s;
    const int size = std::abs(shift);
    found = {offset.arg(size / 60).arg(size % 60).toStdString(), now};
  }
  return found;
}

class CurfewQuotaTest : public ScreenFixture {
 protected:
  // The agent in a session of its own, then an application that may run in those hours only.
  Program StartWithCurfew(const Place& place, const QString& start, const QString& stop) {
    StartDesktop();
    world.StartServer();
    world.InstallApplication("toy");
    world.SetLimits("toy", {"Credit=100", "WD Curfew Enabled=yes",
                            "WD start=" + start.toStdString(), "WD stop=" + stop.toStdString()});
    world.StartAgentInSession({{"TZ", place.zone}});
    world.StartWitness();
    EXPECT_TRUE(WitnessPays(1));
    return world.Launch("toy");
  }
};

TEST_F(CurfewQuotaTest, TooEarlyOnAWeekDayEndsTheApplicationAMinuteAfterTheWarning) {
  const Place place = FindWeekDay(true);
  const QString start = place.In(10);
  Program toy = StartWithCurfew(place, start, u"23:59"_s);
  const QString warning = u"Toy toy: it is too early. You can start at "_s;
  ASSERT_TRUE(ComesUp(warning + start));
  ExpectNothingIsCounted();
  EXPECT_TRUE(toy.IsRunning());
  Click();
  EXPECT_TRUE(Goes(warning));
  EXPECT_TRUE(WaitForExit(toy.pidfd(), kPatience + world.Seconds(60)));
  EXPECT_TRUE(WitnessPays(Paid() + 1));
  EXPECT_TRUE(world.leader.IsRunning());
}

TEST_F(CurfewQuotaTest, TooLateOnAWeekDayEndsTheSessionAMinuteAfterTheWarning) {
  const Place place = FindWeekDay(false);
  const QString stop = place.In(-5);
  world.WritePreferences({{u"Don't fade screen"_s, u"1"_s}});
  Program toy = StartWithCurfew(place, u"00:00"_s, stop);
  ASSERT_TRUE(ComesUp(u"The time for it ended at "_s + stop));
  EXPECT_TRUE(world.leader.IsRunning());
  EXPECT_TRUE(WaitForExit(world.leader.pidfd(), kPatience + world.Seconds(60)));
  EXPECT_TRUE(toy.IsRunning());
}

class QuotaTest : public CurfewQuotaTest, public testing::WithParamInterface<bool> {};

TEST_P(QuotaTest, WarnsIsSilentAndEndsTheSessionUnlessTheFolderShrinks) {
  const bool shrinks = GetParam();
  const QString warning = u"It holds 1.50 MB, and 1.00 MB is allowed."_s;
  world.SetHomeSize(1 << 19);
  StartDesktop();
  world.StartServer();
  SetQuota("1");
  world.StartAgentInSession();
  world.StartWitness();
  ASSERT_TRUE(WitnessPays(1));
  EXPECT_FALSE(IsUp(warning));
  world.SetHomeSize(3 << 19);
  ASSERT_TRUE(ComesUp(warning, 60));
  if (shrinks) world.SetHomeSize(1 << 20);
  Click();
  EXPECT_TRUE(Goes(warning));
  const auto seen = Clock::now();
  const auto patience = world.Seconds(140) + (shrinks ? 0s : kPatience);
  EXPECT_EQ(WaitForExit(world.leader.pidfd(), patience), !shrinks);
  EXPECT_GE(Clock::now() - seen, world.Seconds(60)) << "not at the check after the warning";
  EXPECT_FALSE(IsUp(warning));
}

INSTANTIATE_TEST_SUITE_P(Endings, QuotaTest, testing::Bool(), [](const auto& row) {
  return std::string(row.param ? "Shrinks" : "StaysTooLarge");
});

}  // namespace
}  // namespace vardell::test
