// What the control socket shows of use, and what it adds to a credit.
#include <array>
#include <limits>

#include "Common Sources/Caps.h"
#include "link/LimitsRecord.h"
#include "tests/server/ControlApiFixture.h"

namespace vardell::server {
namespace {

const QString kCredit = QStringLiteral("Credit");
const QString kOther = QStringLiteral("org.example.other");

class ControlApiUse : public ControlApi {
 protected:
  // A minute of use per day, of days one after the other; the last is that of now_.
  void UseOnDays(int days) {
    for (int day = 0; day < days; ++day) {
      now_ = now_.addDays(day == 0 ? 0 : 1);
      At(86400 * day);
      Start();
      const int credit = Fetch();
      Report(credit - 1);
    }
  }
  int Added(const ControlAnswer& answer) const {
    return Json(answer).value(QLatin1String("added")).toInt(-99);
  }
};

TEST_F(ControlApiUse, AnAdjustmentAddsWhatTheBoundsOfACreditLetIt) {
  constexpr int most = std::numeric_limits<std::int32_t>::max();
  const struct {
    const char* what;
    int before;
    int minutes;
    int credit;
    int added;
  } kRows[] = {
      {"a gift", 30, 15, 45, 15},
      {"a punishment", 30, -10, 20, -10},
      {"more than there is", 30, -most, 0, -30},
      {"nothing to take away", 0, -5, 0, 0},
      {"above the largest", most - 3, 10, most, 3},
      {"upon the value that means spent", kSpentCredit - 5, 5, kSpentCredit - 1, 4},
      {"down upon it", kSpentCredit + 5, -5, kSpentCredit - 1, -6},
      {"across it", kSpentCredit - 5, 6, kSpentCredit + 1, 6},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    Limit({{kCredit, row.before}});
    const std::size_t rows = Ledger().size();
    const QByteArray body = R"({"minutes":)" + QByteArray::number(row.minutes) + R"(,"id":"n)" +
                            QByteArray::number(int(&row - kRows)) + R"(","reason":"why"})";
    const ControlAnswer answer = Ask("POST", kGameAdjustments, body);
    EXPECT_EQ(answer.status, 200) << Text(answer);
    EXPECT_EQ(answer.etag, "\"1\"");
    EXPECT_EQ(Added(answer), row.added);
    EXPECT_EQ(Credit(), row.credit);
    EXPECT_EQ(Fetch(), row.credit) << "what agents are given";
    ASSERT_EQ(Ledger().size(), rows + 1);
    EXPECT_EQ(Ledger().back().minutes, row.added);
    EXPECT_EQ(Ledger().back().source, QStringLiteral("admin"));
    EXPECT_EQ(Ledger().back().reason, QStringLiteral("why"));
  }
}

TEST_F(ControlApiUse, AnAdjustmentIsAppliedOnceForEachId) {
  const QByteArray body = R"({"minutes":2147483647,"id":"a1"})";
  const int added = std::numeric_limits<std::int32_t>::max() - 30;
  EXPECT_EQ(Added(Ask("POST", kGameAdjustments, body)), added);
  const QByteArray set = R"({"minutes":10,"id":"a2","reason":"homework"})";
  EXPECT_EQ(Ask("PUT", kGameCredit, set).etag, "\"1\"") << "credit is no part of the revision";
  const std::array<std::pair<const char*, QByteArray>, 4> others{{
      {kGameAdjustments, R"({"minutes":5,"id":"a1"})"},
      {kGameAdjustments, R"({"minutes":2147483647,"id":"a1","reason":"again"})"},
      {kGameCredit, R"({"minutes":2147483647,"id":"a1"})"},
      {kGameAdjustments, R"({"minutes":10,"id":"a2"})"},
  }};
  for (const char* when : {"at once", "after a restart"}) {
    const ControlAnswer again = Ask("POST", kGameAdjustments, body);
    EXPECT_EQ(again.status, 200) << when;
    EXPECT_EQ(Added(again), added) << when << ": what was added then";
    EXPECT_EQ(Ask("PUT", kGameCredit, set).status, 200) << when;
    for (const auto& [target, other] : others) {
      const bool isPut = target == std::string_view(kGameCredit);
      const ControlAnswer refused = Ask(isPut ? "PUT" : "POST", target, other);
      EXPECT_EQ(refused.status, 409);
      EXPECT_EQ(Code(refused), "id-reused") << when << other.data();
    }
    EXPECT_EQ(Credit(), 10) << when;
    ASSERT_EQ(Ledger().size(), 3u) << "booked twice " << when;
    Open();
  }
  EXPECT_EQ(Ledger()[2].reason, QStringLiteral("homework"));
  EXPECT_EQ(Ledger()[2].actor, requester_.actor.name);
}

TEST_F(ControlApiUse, UsageIsShownByDayAndCanBeNarrowed) {
  UseOnDays(3);
  Limit({{kCredit, 9}}, kOther, anna_);
  const struct {
    const char* query;
    std::string days;
  } kRows[] = {
      {"", R"({"2009-03-05":1,"2009-03-06":1,"2009-03-07":1})"},
      {"?from=2009-03-06", R"({"2009-03-06":1,"2009-03-07":1})"},
      {"?to=2009-03-06", R"({"2009-03-05":1,"2009-03-06":1})"},
      {"?from=2009-03-06&to=2009-03-06", R"({"2009-03-06":1})"},
      {"?from=2009-03-08", "{}"},
  };
  for (const char* when : {"at once", "after a restart"}) {
    for (const auto& row : kRows) {
      SCOPED_TRACE(std::string(row.query) + " " + when);
      const std::string one = R"("identifier":"org.example.game")";
      EXPECT_EQ(Text(Ask("GET", kGameUsage + QByteArray(row.query))),
                R"({"days":)" + row.days + "," + one + R"(,"user":"anna"})");
      const std::string usage =
          row.days == "{}" ? "[]" : R"([{"days":)" + row.days + "," + one + "}]";
      EXPECT_EQ(Text(Ask("GET", "/v1/users/anna/usage" + QByteArray(row.query))),
                R"({"usage":)" + usage + R"(,"user":"anna"})")
          << "an identifier without use is not in it";
    }
    Open();
  }
  EXPECT_EQ(Text(Ask("GET", "/v1/users/anna/limits/org.example.other/usage")),
            R"({"days":{},"identifier":"org.example.other","user":"anna"})");
}

TEST_F(ControlApiUse, ARemovedLimitLeavesItsUseAndARevisionThatNeverComesAgain) {
  UseOnDays(2);
  const QVariantMap unknown = household_->FetchLimits(connection_, anna_, QStringLiteral("x"));
  EXPECT_EQ(Text(Ask("DELETE", kGame, {}, "\"1\"")), R"({"removed":true})");
  for (int time = 0; time < 2; ++time, Open()) {
    EXPECT_EQ(Ask("GET", kGame).status, 404);
    EXPECT_EQ(FetchAll(), unknown);
    EXPECT_EQ(Text(Ask("GET", "/v1/users")), R"({"users":[]})");
    EXPECT_EQ(Json(Ask("GET", "/v1/status")).value(QLatin1String("users")), 0);
    EXPECT_EQ(Ask("GET", "/v1/users/anna/usage").status, 200);
    EXPECT_EQ(Json(Ask("GET", kGameUsage)).value(QLatin1String("days")).toObject().size(), 2);
  }
  EXPECT_EQ(Ledger().back().minutes, -28) << "booked to 0";
  EXPECT_EQ(Ask("PATCH", kGame, R"({"limits":{"Credit":5}})", {}, "*").etag, "\"2\"");
  EXPECT_EQ(Ask("DELETE", kGame, {}, "\"1\"").status, 412);
}

// --- Agents.

TEST_F(ControlApiUse, AgentsAreShownWithWhatTheyFetchedLately) {
  Limit({{QStringLiteral("Enabled"), false}}, kOther, anna_);
  household_->ConnectionOpened({7, QStringLiteral("192.0.2.7"), std::nullopt});
  household_->ConnectionOpened(connection_);
  now_ = now_.addSecs(60);
  Launch(1000);
  (void)household_->FetchLimits(connection_, anna_, QStringLiteral("org.example.free"));
  (void)Fetch();
  Report(1060, 29);
  EXPECT_EQ(Fetch(), 29);
  (void)household_->FetchLimits(connection_, anna_, kOther);
  (void)household_->FetchLimits(connection_, QStringLiteral("ben"), game_);  // not its user
  const std::string silent =
      R"({"applications":[],"host":"192.0.2.7","since":"2009-03-05T18:00:00.000+01:00",)"
      R"("user":null})";
  const std::string head = R"({"applications":[)";
  const std::string free = R"({"credit":null,"identifier":"org.example.free","unlimited":false},)";
  const std::string others =
      R"({"credit":29,"identifier":"org.example.game","unlimited":false},)"
      R"({"credit":null,"identifier":"org.example.other","unlimited":false})";
  const std::string tail =
      R"(],"host":"local","since":"2009-03-05T18:00:00.000+01:00","user":"anna"})";
  const std::string anna = head + free + others + tail;
  EXPECT_EQ(Text(Ask("GET", "/v1/agents")), R"({"agents":[)" + anna + "," + silent + "]}");
  Be(Role::Read, "anna");
  EXPECT_EQ(Text(Ask("GET", "/v1/agents")), R"({"agents":[)" + anna + "]}");
  Be(Role::Read, "ben");
  EXPECT_EQ(Text(Ask("GET", "/v1/agents")), R"({"agents":[]})");
  Be(Role::TopUp, "mum");
  At(1121);
  household_->ConnectionClosed(7);
  EXPECT_EQ(Text(Ask("GET", "/v1/agents")), R"({"agents":[)" + head + others + tail + "]}");
}

TEST_F(ControlApiUse, WhatOneConnectionFetchesIsBounded) {
  const auto applications = [this] {
    const QJsonArray agents =
        Json(Ask("GET", "/v1/agents")).value(QLatin1String("agents")).toArray();
    return agents[0].toObject().value(QLatin1String("applications")).toArray();
  };
  connection_.peerUid.reset();
  for (int i = 0; i < 300; ++i) {
    (void)household_->FetchLimits(connection_, anna_, QStringLiteral("app%1").arg(i));
  }
  ASSERT_EQ(applications().size(), static_cast<qsizetype>(kMaxRecentFetches));
  EXPECT_EQ(applications().last().toObject().value(QLatin1String("identifier")),
            QStringLiteral("app299"));
  for (int i = 0; i < 300; ++i) {
    (void)household_->FetchLimits(connection_, anna_, QString(1000, QChar(0x4e00 + i)));
  }
  EXPECT_EQ(applications().size(), kMaxRecentFetchCharacters / 1000);
  (void)household_->FetchLimits(connection_, QStringLiteral("ben"), game_);
  EXPECT_EQ(applications().size(), 1) << "of the user whom it speaks for now";
}

}  // namespace
}  // namespace vardell::server
