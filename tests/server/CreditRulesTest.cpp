#include "server/CreditRules.h"

#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QStringList>
#include <algorithm>
#include <optional>

#include "link/LimitsRecord.h"

namespace vardell::server {
namespace {

using std::chrono::seconds;

// What happens on one lane, in words with times in seconds: start@T, fetch@T=ANSWER and
// report@T=CLAIM with :CHARGE behind them, grace@T=CLAIM, credit=MINUTES, reconnect, reboot; from
// unlimited on it is so, and from hours=MINUTES on they allow that much, less as time goes by.
class Course {
 public:
  explicit Course(std::int64_t credit) { account_ = WithCredit({0, true, false}, credit); }

  void Do(const QString& step) {
    static const QRegularExpression kForm(
        QStringLiteral("^(\\w+)(?:@(\\d+))?(?:=(-?\\d+))?(?::(\\d+))?$"));
    const auto match = kForm.match(step);
    ASSERT_TRUE(match.hasMatch());
    const QString what = match.captured(1);
    const seconds at(match.captured(2).toInt());
    const std::int64_t value = match.captured(3).toLongLong();
    const std::int64_t charge = match.captured(4).toLongLong();
    if (what == QLatin1String("start")) {
      lane_ = AfterStart(at, lane_);
    } else if (what == QLatin1String("fetch")) {
      Fetch(AfterFetch(at, lane_, account_, Allowed(at)), value, charge);
    } else if (what == QLatin1String("hours")) {
      closing_ = at + std::chrono::minutes(value);
    } else if (what == QLatin1String("unlimited")) {
      account_.unlimited = true;
    } else if (what == QLatin1String("credit")) {
      account_ = WithCredit(account_, value);
    } else if (what == QLatin1String("reconnect")) {
      handed_.reset();
    } else if (what == QLatin1String("reboot")) {
      lane_ = {};
    } else {
      const auto claim = static_cast<std::int32_t>(value);
      const Booking booking = AfterReport(at, lane_, account_, handed_, claim);
      EXPECT_EQ(booking.charge, charge);
      EXPECT_EQ(booking.grace ? "grace" : "report", what.toStdString());
      TakeOver(booking);
    }
  }

  std::int64_t Credit() const { return account_.credit; }

 private:
  void Fetch(const FetchBooking& booking, std::int64_t answer, std::int64_t charge) {
    EXPECT_EQ(booking.answer, answer);
    EXPECT_EQ(booking.charge, charge);
    TakeOver(booking);
    handed_ = Handed(booking.answer, booking.capped);
  }
  std::optional<std::int32_t> Allowed(seconds at) const {
    if (!closing_) return std::nullopt;
    return static_cast<std::int32_t>((std::max(*closing_, at) - at) / std::chrono::minutes(1));
  }
  void TakeOver(const Booking& booking) {
    lane_ = booking.lane;
    account_ = booking.account;
  }

  LaneState lane_;
  AccountState account_;
  std::optional<Handed> handed_;
  std::optional<seconds> closing_;
};

TEST(CreditRulesTest, WhatIsUsedIsBooked) {
  const struct {
    const char* behaviour;
    std::int64_t credit;
    const char* steps;
    std::int64_t left;
  } rows[] = {
      // clang-format off
      {"credit 2 lasts 121 s: each minute paid in advance, the end is free", 2,
       "start@0 fetch@0=2 report@1=1:1 fetch@1=1 report@61=0:1 fetch@61=0 report@121=-1:0 fetch@121=0", 0},
      {"credit that comes between the last minute and the end is not taken by the end", 1,
       "start@0 fetch@0=1 report@1=0:1 fetch@1=0 credit=30 report@61=-1:0", 30},
      {"reports that drift by seconds are charged one each", 9,
       "start@0 fetch@0=9 report@2=8:1 fetch@2=8 report@65=7:1 fetch@65=7 report@121=6:1", 6},
      {"a top-up while it runs is not lost by the report that does not know it", 10,
       "start@0 fetch@0=10 credit=40 report@1=9:1 fetch@1=39", 39},
      {"a quick relaunch within a paid minute is neither charged twice nor free", 9,
       "start@0 fetch@0=9 report@1=8:1 fetch@1=8 start@20 fetch@20=8 report@21=7:0 fetch@21=8 report@81=7:1", 7},
      {"a relaunch after a break begins a new minute, the break is free", 9,
       "start@0 fetch@0=9 report@1=8:1 start@1000 fetch@1000=8 report@1001=7:1 report@1002=6:0", 7},
      {"a break of more than a minute ends what was begun", 9,
       "start@0 fetch@0=9 report@1=8:1 start@121 fetch@121=8 report@122=5:1", 7},
      {"... a shorter one does not", 9,
       "start@0 fetch@0=9 report@1=8:1 start@120 fetch@120=8 report@121=5:2", 6},
      {"minutes that a stopped agent caught up on are charged", 9,
       "start@0 fetch@0=9 report@1=8:1 fetch@1=8 report@181=7:1 fetch@181=7 report@181=6:1 fetch@181=6 report@181=5:1 fetch@181=5", 5},
      {"a suspension costs the one minute that is reported", 9,
       "start@0 fetch@0=9 report@1=8:1 fetch@1=8 report@7201=7:1", 7},
      {"two processes of one application cost one minute a minute", 9,
       "start@0 fetch@0=9 report@1=8:1 fetch@1=8 start@30 fetch@30=8 report@31=7:0 fetch@31=8 report@61=7:1 fetch@61=7 report@91=6:0", 7},
      {"after a reconnect a report claims one minute, whatever it says", 9,
       "start@0 fetch@0=9 report@1=8:1 reconnect report@61=2:1", 7},
      {"after a reboot of the Server the next report is one minute", 9,
       "start@0 fetch@0=9 report@1=8:1 fetch@1=8 reboot report@5=7:1", 7},
      {"a fetch without its report stands for it", 9,
       "start@0 fetch@0=9 report@1=8:1 fetch@1=8 fetch@61=7:1", 7},
      {"a fetch that is asked again at once costs nothing", 9,
       "start@0 fetch@0=9 report@1=8:1 fetch@1=8 fetch@3=8", 8},
      {"a first fetch that is asked again takes the minute that the report then does not", 9,
       "start@0 fetch@0=9 fetch@2=8:1 report@3=7:0 fetch@3=8", 8},
      {"a report that claims more credit than was handed adds nothing", 9,
       "start@0 fetch@0=9 report@1=99999:0 report@1=2147483647:0", 9},
      {"a report that claims hours costs the time that has passed", 500,
       "start@0 fetch@0=500 report@1=-2147483648:1 report@2=-5:0 report@61=0:1", 498},
      {"without a start a report costs one minute, and the next falls due 5 s early", 9,
       "report@0=3:1 report@1=3:0 report@54=3:0 report@55=3:1", 7},
      {"a launch at 0 gets one minute of grace, a second launch none", 0,
       "start@0 fetch@0=0 grace@1=0 fetch@1=0 report@61=-1:0 fetch@61=0 start@70 fetch@70=12345 report@71=0:0 fetch@71=0", 0},
      {"quitting within the grace does not bring another one", 0,
       "start@0 fetch@0=0 grace@1=0 fetch@1=0 start@50 fetch@50=12345 report@51=0:0", 0},
      {"what is spent stays spent at the next launch", 1,
       "start@0 fetch@0=1 report@1=0:1 fetch@1=0 report@61=-1:0 fetch@61=0 start@300 fetch@300=12345 start@400 fetch@400=12345", 0},
      {"new credit ends it, and gives a new grace afterwards", 0,
       "start@0 fetch@0=0 grace@1=0 report@61=-1:0 credit=1 start@100 fetch@100=1 report@101=0:1 fetch@101=0 credit=0 start@200 fetch@200=0 grace@201=0", 0},
      {"a credit that would fall to 12345 falls to 12344", 12346,
       "start@0 fetch@0=12346 report@1=12345:1 fetch@1=12344", 12344},
      {"12345 is never kept", 12345,
       "start@0 fetch@0=12344", 12344},
      {"credit beyond 31 bits is sent as the most there is", 5000000000,
       "start@0 fetch@0=2147483647 report@1=2147483646:1", 4999999999},
      {"what is unlimited is booked and costs nothing", 2,
       "unlimited start@0 fetch@0=59999 report@1=59998:1 fetch@1=59999 report@61=59998:1 fetch@61=59999 fetch@121=59999:1", 2},
      {"... without credit, too: no grace, no end, and the next launch is as good", 0,
       "unlimited start@0 fetch@0=59999 report@1=59998:1 fetch@1=59999 report@61=-1:1 start@99 fetch@99=59999", 0},
      {"hours that end cap what is handed, and what is used is taken from the whole", 200,
       "hours@0=10 start@0 fetch@0=10 report@1=9:1 fetch@1=9 report@61=8:1 fetch@61=8", 198},
      {"their end is reported as any other, and takes nothing", 200,
       "hours@0=1 start@0 fetch@0=1 report@1=0:1 fetch@1=0 report@61=-1:0 fetch@61=0", 199},
      {"outside of them a start is denied as if all were spent", 200,
       "hours@0=0 start@0 fetch@0=12345 report@60=0:0 fetch@60=0", 200},
      {"... which they do not make it, and there is no grace", 0,
       "hours@0=0 start@0 fetch@0=12345 report@60=0:0 report@61=-1:0 hours@90=9 start@90 fetch@90=12345", 0},
      {"hours that close all at once let the agent grant a minute, which is paid", 200,
       "start@0 fetch@0=200 report@1=199:1 hours@1=0 fetch@1=0 report@61=0:1 fetch@61=0 report@121=-1:0", 198},
      {"hours that are open longer than there is credit cap nothing", 1,
       "hours@0=9 start@0 fetch@0=1 report@1=0:1 fetch@1=0 report@61=-1:0", 0},
      {"unlimited within hours", 7,
       "unlimited hours@0=3 start@0 fetch@0=3 report@1=2:1 fetch@1=2", 7},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.behaviour);
    Course course(row.credit);
    for (const QString& step : QString::fromLatin1(row.steps).split(QLatin1Char(' '))) {
      SCOPED_TRACE(step.toStdString());
      course.Do(step);
    }
    EXPECT_EQ(course.Credit(), row.left);
  }
}

TEST(CreditRulesTest, NothingIsCountedWhereTheLimitIsOff) {
  const AccountState off{10, false, false};
  const LaneState lane = AfterStart(seconds(0), {});
  EXPECT_EQ(AfterReport(seconds(1), lane, off, 10, 9).charge, 0);
  EXPECT_EQ(AfterFetch(seconds(500), {seconds(0), false, false}, off).charge, 0);
}

TEST(CreditRulesTest, AShorterSecondMakesTheClockFaster) {
  using std::chrono::milliseconds;
  EXPECT_EQ(ToEnforcementTime(milliseconds(61234), milliseconds(1000)), milliseconds(61234));
  EXPECT_EQ(ToEnforcementTime(milliseconds(125), milliseconds(50)), milliseconds(2500));
  EXPECT_EQ(ToEnforcementTime(milliseconds(3), milliseconds(0)), milliseconds(3000));
}

}  // namespace
}  // namespace vardell::server
