#include "server/CreditRules.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <variant>
#include <vector>

#include "link/LimitsRecord.h"

namespace vardell::server {
namespace {

using std::chrono::seconds;

// --- The vocabulary: what happens on one lane, at which second, and what must come of it.

struct Start {
  int at;
};
struct Fetch {
  int at;
  std::int32_t answers;
  std::int64_t charges = 0;
};
struct Report {
  int at;
  std::int32_t says;
  std::int64_t charges;
};
struct Grace {
  int at;
  std::int32_t says;
};
struct CreditBecomes {
  std::int64_t minutes;
};
struct Reconnect {};
struct Reboot {};
using Step = std::variant<Start, Fetch, Report, Grace, CreditBecomes, Reconnect, Reboot>;

class Course {
 public:
  explicit Course(std::int64_t credit) { account_ = WithCredit({0, true, false}, credit); }

  void operator()(const Start& step) { lane_ = AfterStart(seconds(step.at), lane_); }
  void operator()(const Fetch& step) {
    const FetchBooking booking = AfterFetch(seconds(step.at), lane_, account_);
    EXPECT_EQ(booking.answer, step.answers) << "fetch at " << step.at;
    EXPECT_EQ(booking.charge, step.charges) << "fetch at " << step.at;
    TakeOver(booking);
    handed_ = booking.answer;
  }
  void operator()(const Report& step) { Book(step.at, step.says, step.charges, false); }
  void operator()(const Grace& step) { Book(step.at, step.says, 0, true); }
  void operator()(const CreditBecomes& step) { account_ = WithCredit(account_, step.minutes); }
  void operator()(const Reconnect&) { handed_.reset(); }
  void operator()(const Reboot&) { lane_ = {}; }

  std::int64_t Credit() const { return account_.credit; }

 private:
  void Book(int at, std::int32_t says, std::int64_t charges, bool grace) {
    const Booking booking = AfterReport(seconds(at), lane_, account_, handed_, says);
    EXPECT_EQ(booking.charge, charges) << "report of " << says << " at " << at;
    EXPECT_EQ(booking.grace, grace) << "report of " << says << " at " << at;
    TakeOver(booking);
  }
  void TakeOver(const Booking& booking) {
    lane_ = booking.lane;
    account_ = booking.account;
  }

  LaneState lane_;
  AccountState account_;
  std::optional<std::int32_t> handed_;
};

struct Row {
  std::string behaviour;
  std::int64_t credit;
  std::vector<Step> steps;
  std::int64_t left;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.behaviour;
}

class CreditCourseTest : public testing::TestWithParam<Row> {};

TEST_P(CreditCourseTest, BooksWhatWasUsed) {
  SCOPED_TRACE(GetParam().behaviour);
  Course course(GetParam().credit);
  for (const Step& step : GetParam().steps) std::visit(course, step);
  EXPECT_EQ(course.Credit(), GetParam().left);
}

INSTANTIATE_TEST_SUITE_P(
    Ordinary, CreditCourseTest,
    testing::Values(
        Row{"credit 2 lasts 121 s: each minute paid in advance, the end is free",
            2,
            {Start{0}, Fetch{0, 2}, Report{1, 1, 1}, Fetch{1, 1}, Report{61, 0, 1}, Fetch{61, 0},
             Report{121, -1, 0}, Fetch{121, 0}},
            0},
        Row{"credit that comes between the last minute and the end is not taken by the end",
            1,
            {Start{0}, Fetch{0, 1}, Report{1, 0, 1}, Fetch{1, 0}, CreditBecomes{30},
             Report{61, -1, 0}},
            30},
        Row{"reports that drift by seconds are charged one each",
            9,
            {Start{0}, Fetch{0, 9}, Report{2, 8, 1}, Fetch{2, 8}, Report{65, 7, 1}, Fetch{65, 7},
             Report{121, 6, 1}},
            6},
        Row{"a top-up while it runs is not lost by the report that does not know it",
            10,
            {Start{0}, Fetch{0, 10}, CreditBecomes{40}, Report{1, 9, 1}, Fetch{1, 39}},
            39}));

INSTANTIATE_TEST_SUITE_P(
    Interruptions, CreditCourseTest,
    testing::Values(
        Row{"a quick relaunch within a paid minute is neither charged twice nor free",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Fetch{1, 8}, Start{20}, Fetch{20, 8},
             Report{21, 7, 0}, Fetch{21, 8}, Report{81, 7, 1}},
            7},
        Row{"a relaunch after a break begins a new minute, the break is free",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Start{1000}, Fetch{1000, 8},
             Report{1001, 7, 1}, Report{1002, 6, 0}},
            7},
        Row{"a break of more than a minute ends what was begun",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Start{121}, Fetch{121, 8}, Report{122, 5, 1}},
            7},
        Row{"... a shorter one does not",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Start{120}, Fetch{120, 8}, Report{121, 5, 2}},
            6},
        Row{"minutes that a stopped agent caught up on are charged",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Fetch{1, 8}, Report{181, 7, 1}, Fetch{181, 7},
             Report{181, 6, 1}, Fetch{181, 6}, Report{181, 5, 1}, Fetch{181, 5}},
            5},
        Row{"a suspension costs the one minute that is reported",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Fetch{1, 8}, Report{7201, 7, 1}},
            7},
        Row{"two processes of one application cost one minute a minute",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Fetch{1, 8}, Start{30}, Fetch{30, 8},
             Report{31, 7, 0}, Fetch{31, 8}, Report{61, 7, 1}, Fetch{61, 7}, Report{91, 6, 0}},
            7},
        Row{"after a reconnect a report claims one minute, whatever it says",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Reconnect{}, Report{61, 2, 1}},
            7},
        Row{"after a reboot of the Server the next report is one minute",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Fetch{1, 8}, Reboot{}, Report{5, 7, 1}},
            7},
        Row{"a fetch without its report stands for it",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Fetch{1, 8}, Fetch{61, 7, 1}},
            7},
        Row{"a fetch that is asked again at once costs nothing",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 8, 1}, Fetch{1, 8}, Fetch{3, 8}},
            8},
        Row{"a first fetch that is asked again takes the minute that the report then does not",
            9,
            {Start{0}, Fetch{0, 9}, Fetch{2, 8, 1}, Report{3, 7, 0}, Fetch{3, 8}},
            8}));

INSTANTIATE_TEST_SUITE_P(
    Forgery, CreditCourseTest,
    testing::Values(
        Row{"a report that claims more credit than was handed adds nothing",
            9,
            {Start{0}, Fetch{0, 9}, Report{1, 99999, 0}, Report{1, 2147483647, 0}},
            9},
        Row{"a report that claims hours costs the time that has passed",
            500,
            {Start{0}, Fetch{0, 500}, Report{1, -2147483647 - 1, 1}, Report{2, -5, 0},
             Report{61, 0, 1}},
            498},
        Row{"without a start a report costs one minute, and the next falls due 5 s early",
            9,
            {Report{0, 3, 1}, Report{1, 3, 0}, Report{54, 3, 0}, Report{55, 3, 1}},
            7}));

INSTANTIATE_TEST_SUITE_P(
    GraceAndSpent, CreditCourseTest,
    testing::Values(
        Row{"a launch at 0 gets one minute of grace, a second launch none",
            0,
            {Start{0}, Fetch{0, 0}, Grace{1, 0}, Fetch{1, 0}, Report{61, -1, 0}, Fetch{61, 0},
             Start{70}, Fetch{70, kSpentCredit}, Report{71, 0, 0}, Fetch{71, 0}},
            0},
        Row{"quitting within the grace does not bring another one",
            0,
            {Start{0}, Fetch{0, 0}, Grace{1, 0}, Fetch{1, 0}, Start{50}, Fetch{50, kSpentCredit},
             Report{51, 0, 0}},
            0},
        Row{"what is spent stays spent at the next launch",
            1,
            {Start{0}, Fetch{0, 1}, Report{1, 0, 1}, Fetch{1, 0}, Report{61, -1, 0}, Fetch{61, 0},
             Start{300}, Fetch{300, kSpentCredit}, Start{400}, Fetch{400, kSpentCredit}},
            0},
        Row{"new credit ends it, and gives a new grace afterwards",
            0,
            {Start{0}, Fetch{0, 0}, Grace{1, 0}, Report{61, -1, 0}, CreditBecomes{1}, Start{100},
             Fetch{100, 1}, Report{101, 0, 1}, Fetch{101, 0}, CreditBecomes{0}, Start{200},
             Fetch{200, 0}, Grace{201, 0}},
            0}));

INSTANTIATE_TEST_SUITE_P(
    TheSpentValue, CreditCourseTest,
    testing::Values(Row{"a credit that would fall to 12345 falls to 12344",
                        12346,
                        {Start{0}, Fetch{0, 12346}, Report{1, 12345, 1}, Fetch{1, 12344}},
                        12344},
                    Row{"12345 is never kept", 12345, {Start{0}, Fetch{0, 12344}}, 12344},
                    Row{"credit beyond 31 bits is sent as the most there is",
                        5000000000,
                        {Start{0}, Fetch{0, 2147483647}, Report{1, 2147483646, 1}},
                        4999999999}));

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
