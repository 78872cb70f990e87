// Three years of top-ups through the whole Household, its store and its restarts: one for each
// local date that the rules demand, whatever becomes of the Server and its clock.
#include <gtest/gtest.h>

#include <QDateTime>

#include "tests/server/HouseholdSimulation.h"

namespace vardell::test {
namespace {

struct Years {
  const char* behaviour;
  const char* zone;
  const char* first;  // top-up, and the time of the day of all
};

class YearsOfTopUps : Dice {
 public:
  YearsOfTopUps(const Years& years, unsigned seed)
      : Dice(seed),
        first_(InstantOf(years.first, years.zone)),
        home_(QTimeZone(years.zone), first_ - 2 * kHour),
        names_{{QStringLiteral("anna"), QStringLiteral("game")},
               {QStringLiteral("ben"), QStringLiteral("game")}} {
    ModelKeys keys;
    keys.value = 45;
    keys.weekEndValue = 2;
    keys.weekEndUnit = 60;
    keys.next = first_;
    home_.Change(names_[0], keys, {}, 0);
    home_.Change(names_[1], keys, {.rollOver = true, .cap = 2000}, 0);
  }

  void Live() {
    while (lived_ < 3 * 365 * kDay && home_.Problem().empty()) Step();
    home_.CompareAll();
    EXPECT_EQ(home_.Problem(), "") << home_.LastEvents();
  }

  // What the ledger has, date by date.
  void ExpectOneForEachDate() {
    for (const LimitName& name : names_) {
      std::map<QString, int> wanted;
      for (const QDate date : home_.Rules().Find(name)->had) {
        wanted[QStringLiteral("top-up of ") + date.toString(Qt::ISODate)] = 1;
      }
      EXPECT_EQ(home_.TopUps(name), wanted);
    }
    EXPECT_GT(home_.TopUps(names_[0]).size(), 850u);
    EXPECT_GT(home_.TopUps(names_[1]).size(), home_.TopUps(names_[0]).size())
        << "of those that were missed all";
    EXPECT_GT(outages_, 20);
    EXPECT_GT(jumps_, 10);
  }

 private:
  void Pass(std::int64_t time) {
    home_.Pass(time);
    lived_ += time;
  }
  void Use() {
    const Peer peer{0, Once(2) ? names_[0].first : names_[1].first, {1, QStringLiteral("far"), {}}};
    home_.Start(peer, names_[0].second);
    const auto credit = home_.Fetch(peer, names_[0].second);
    Pass(Below(5) * kMinute);
    home_.Report(peer, names_[0].second, credit.value_or(0) - Below(6));
  }
  void WrongBy(std::int64_t wrongBy, bool isKnownToBeRight) {
    home_.SetWall(home_.Wall() + wrongBy - std::exchange(wrongBy_, wrongBy), isKnownToBeRight);
    ++jumps_;
  }
  void Step() {
    Pass(Once(4) ? Below(20 * kHour) : Below(10 * kHour));
    if (Once(3)) Use();
    if (Once(80)) {
      Once(4) ? home_.CutPower() : home_.Stop();
      Pass(Once(3) ? Below(9 * kDay) : Below(30 * kHour));
      if (Once(4)) {
        home_.Reboot(0);
        if (wrongBy_ == 0) WrongBy(Below(kDay) - home_.Wall(), false);
      }
      home_.Begin();
      ++outages_;
    } else if (wrongBy_ != 0 ? Once(6) : Once(120)) {
      const std::int64_t reach[] = {3 * kHour, 2 * kDay, 20 * kDay, 365 * kDay};
      const std::int64_t most = reach[Below(4)];
      WrongBy(wrongBy_ != 0 ? 0 : Below(2 * most) - most, true);
    }
    home_.TopUp();
    for (const LimitName& name : names_) home_.Compare(name);
  }

  std::int64_t first_;
  Simulation home_;
  LimitName names_[2];
  std::int64_t lived_ = 0;
  std::int64_t wrongBy_ = 0;  // the wall clock
  int outages_ = 0;
  int jumps_ = 0;
};

TEST(HouseholdYearsTest, OneTopUpForEachLocalDateInThreeYears) {
  const Years places[] = {
      {"a time that one night leaves out, and one has twice", "Europe/Madrid", "2022-06-01T02:30"},
      {"midnight", "America/New_York", "2022-06-01T00:00"},
      {"no daylight saving", "Asia/Kolkata", "2022-06-01T23:45"},
      {"half an hour of it", "Australia/Lord_Howe", "2022-06-01T01:45"},
      {"a date that never was", "Pacific/Apia", "2010-06-01T18:00"},
  };
  unsigned seed = 0;
  for (const Years& years : places) {
    SCOPED_TRACE(years.behaviour);
    YearsOfTopUps life(years, ++seed);
    life.Live();
    life.ExpectOneForEachDate();
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace vardell::test
