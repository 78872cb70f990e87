#include "server/ControlApi.h"

#include <array>
#include <utility>

#include "Common Sources/Caps.h"
#include "tests/server/ControlApiFixture.h"

namespace vardell::server {
namespace {

// Monday's windows, and forty holidays of the name.
QByteArray ScheduleWith(const QByteArray& monday, const QByteArray& holiday = {}) {
  QByteArray holidays;
  for (int number = 0; number < 40 && !holiday.isEmpty(); ++number) {
    holidays += QByteArray(holidays.isEmpty() ? "" : ",") +
                R"({"first":"2027-07-01","last":"2027-08-31","name":")" + holiday +
                R"(","windows":[]})";
  }
  return R"({"days":)" + WeekOf("monday", monday) + R"(,"holidays":[)" + holidays + "]}";
}

// --- What the resources show.

TEST_F(ControlApi, StatusShowsTheServer) {
  EXPECT_EQ(
      Text(Ask("GET", "/v1/status")),
      R"({"address":"127.0.0.1:40001","agents":3,"limits":1,"published":"Vardell on den",)"
      R"("schema":4,"spooled":0,"started":"2009-03-05T18:00:00.000+01:00","store":"SQLite, )" +
          StorePath().toStdString() +
          R"(","storeAway":null,"storeAwaySince":null,"users":1,"version":"0.1","waiting":0,"zone":"+01:00"})");
}

TEST_F(ControlApi, StatusSaysWhyTheStoreIsAwayAndSinceWhen) {
  HouseholdFacts facts;
  facts.writing = {.isAway = true,
                   .problem = QStringLiteral("no answer"),
                   .since = now_,
                   .waiting = 3,
                   .spooled = 4};
  const QJsonObject away = ToJson(status_, facts);
  EXPECT_EQ(away.value(QLatin1String("storeAway")), QStringLiteral("no answer"));
  EXPECT_EQ(away.value(QLatin1String("storeAwaySince")),
            QStringLiteral("2009-03-05T18:00:00.000+01:00"));
  EXPECT_EQ(away.value(QLatin1String("waiting")), 3);
  EXPECT_EQ(away.value(QLatin1String("spooled")), 4);
  facts.writing.problem.clear();
  EXPECT_TRUE(ToJson(status_, facts).value(QLatin1String("storeAway")).isString());
}

TEST_F(ControlApi, ALimitHasItsKeysItsCreditAndItsRevision) {
  const ControlAnswer answer = Ask("GET", kGame);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.contentType, "application/json");
  EXPECT_EQ(answer.etag, "\"1\"");
  EXPECT_EQ(Text(answer),
            R"({"credit":30,"identifier":"org.example.game","limits":{"AutoUpdateCoeff":1,)"
            R"("AutoUpdateValue":0,"DQ Enabled":false,"DQ Value":0,"Enabled":true,)"
            R"("NextAutoUpdate":0,"Report Credit":false,"WD Curfew Enabled":false,)"
            R"("WD start":480,"WD stop":1439,"WE Coeff":0,"WE Curfew Enabled":false,)"
            R"("WE Value":0,"WE start":0,"WE stop":1439},"options":{"parallel":"sum",)"
            R"("rollOver":false,"rollOverCap":null,"schedule":null,"scope":"user",)"
            R"("unlimited":false},"revision":1,"user":"anna"})");
  EXPECT_EQ(Text(Ask("GET", "/v1/users/anna/limits")), "{\"limits\":[" + Text(answer) + "]}");
}

TEST_F(ControlApi, TheLedgerPagesAndFilters) {
  const QString odd = QStringLiteral("a b/c?d#e%f+g\u00e9\U0001F3AE");
  const QByteArray encoded = odd.toUtf8().toPercentEncoding();
  Limit({{QStringLiteral("Credit"), 7}}, odd, QStringLiteral("ben"));
  Fetch();
  Report(29);
  EXPECT_EQ(Json(Ask("GET", "/v1/users/ben/limits/" + encoded)).value(QLatin1String("identifier")),
            odd);
  EXPECT_EQ(
      Text(Ask("GET", "/v1/ledger?limit=1")),
      R"x({"rows":[{"actor":"uid 0 (root)","claimed":null,"credit":30,"day":"2009-03-05","host":"","id":1,)x"
      R"("identifier":"org.example.game","minutes":30,"reason":"set with the limits",)"
      R"("source":"admin","time":"2009-03-05T18:00:00.000+01:00","used":0,"user":"anna"}]})");
  const struct {
    QByteArray query;
    std::vector<int> minutes;
  } kRows[] = {
      {"", {30, 7, -1}},
      {"?user=anna", {30, -1}},
      {"?after=1", {7, -1}},
      {"?after=1&limit=1&user=anna", {-1}},
      {"?user=&identifier=", {30, 7, -1}},
      {"?identifier=" + encoded, {7}},
      {"?user=carl", {}},
  };
  for (const auto& row : kRows) {
    std::vector<int> minutes;
    for (const QJsonValue one :
         Json(Ask("GET", "/v1/ledger" + row.query)).value(QLatin1String("rows")).toArray()) {
      minutes.push_back(one.toObject().value(QLatin1String("minutes")).toInt(-99));
    }
    EXPECT_EQ(minutes, row.minutes) << row.query.data();
  }
}

// --- Changing.

TEST_F(ControlApi, PatchChangesTheNamedKeysUnderTheRevisionOnly) {
  const ControlAnswer changed = Ask("PATCH", kGame, R"({"limits":{"WD stop":1200}})", "\"1\"");
  EXPECT_EQ(changed.status, 200);
  EXPECT_EQ(changed.etag, "\"2\"");
  const ControlAnswer late = Ask("PATCH", kGame, R"({"limits":{"WD stop":60}})", "\"1\"");
  EXPECT_EQ(late.status, 412);
  EXPECT_EQ(Code(late), "revision-mismatch");
  const auto entry = household_->Limits(anna_, game_);
  EXPECT_EQ(entry->limits.weekDayStart, 480);
  EXPECT_EQ(entry->limits.weekDayStop, 1200);

  const QByteArray body = R"({"limits":{"Credit":15}})";
  const ControlAnswer made = Ask("PATCH", "/v1/users/ben/limits/x", body, {}, "*");
  EXPECT_EQ(made.status, 201);
  EXPECT_EQ(made.etag, "\"1\"");
  EXPECT_EQ(household_->Limits(QStringLiteral("ben"), QStringLiteral("x"))->credit, 15);
  EXPECT_EQ(Ask("PATCH", "/v1/users/ben/limits/x", body, {}, "*").status, 412) << "not new";
}

TEST_F(ControlApi, EveryOptionIsChangedBesideTheKeysShownAndThereAfterARestart) {
  const QByteArray schedule = ScheduleWith(R"([{"start":"22:00","stop":"01:00"}])", "Summer");
  const QByteArray options = R"({"parallel":"union","rollOver":true,"rollOverCap":180,)"
                             R"("schedule":)" +
                             schedule + R"(,"scope":"user@host","unlimited":true})";
  const QByteArray body = R"({"limits":{"WD stop":1200},"options":)" + options + "}";
  EXPECT_EQ(Ask("PATCH", kGame, body, "\"1\"").etag, "\"2\"");
  EXPECT_EQ(household_->Limits(anna_, game_)->limits.weekDayStop, 1200);
  EXPECT_EQ(Ask("PATCH", kGame, R"({"options":{"unlimited":false}})", "\"1\"").status, 412);
  for (const char* when : {"at once", "after a restart"}) {
    const QJsonValue shown = Json(Ask("GET", kGame)).value(QLatin1String("options"));
    EXPECT_EQ(shown, QJsonDocument::fromJson(options).object()) << when;
    Open();
  }
  EXPECT_EQ(Ask("PATCH", kGame, R"({"options":{"schedule":null}})", "\"2\"").etag, "\"3\"");
  EXPECT_FALSE(household_->Limits(anna_, game_)->options.schedule);
  EXPECT_TRUE(household_->Limits(anna_, game_)->options.unlimited) << "was not named";
}

// --- Who may.

TEST_F(ControlApi, EachResourceAsksForItsRoleAndAUserSeesNoOtherListed) {
  Limit({{QStringLiteral("Credit"), 7}}, game_, QStringLiteral("ben"));
  const QByteArray credit = R"({"minutes":30,"id":"same","reason":""})";
  const QByteArray added = R"({"minutes":5,"id":"more"})";
  const QByteArray limits = R"({"limits":{}})";
  const struct {
    const char* method;
    const char* target;
    QByteArray body;
    std::array<int, 3> status;  // of root, of the group, of anna
  } kRows[] = {
      {"GET", "/v1/status", {}, {200, 200, 200}},
      {"GET", "/v1/users", {}, {200, 200, 200}},
      {"GET", "/v1/users/anna/limits", {}, {200, 200, 200}},
      {"GET", "/v1/users/ben/limits", {}, {200, 200, 403}},
      {"GET", "/v1/users/carl/limits", {}, {404, 404, 403}},
      {"GET", kGame, {}, {200, 200, 200}},
      {"GET", "/v1/users/ben/limits/org.example.game", {}, {200, 200, 403}},
      {"GET", "/v1/ledger", {}, {200, 200, 403}},
      {"GET", "/v1/ledger?user=anna", {}, {200, 200, 200}},
      {"GET", "/v1/ledger?user=ben", {}, {200, 200, 403}},
      {"PUT", kGameCredit, credit, {200, 200, 403}},
      {"POST", kGameAdjustments, added, {200, 200, 403}},
      {"GET", "/v1/users/anna/usage", {}, {200, 200, 200}},
      {"GET", "/v1/users/ben/usage", {}, {200, 200, 403}},
      {"GET", "/v1/users/ben/limits/org.example.game/usage", {}, {200, 200, 403}},
      {"GET", "/v1/agents", {}, {200, 200, 200}},
      {"PATCH", kGame, limits, {412, 403, 403}},
      {"DELETE", kGame, {}, {412, 403, 403}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row.method) + " " + row.target);
    const std::pair<Role, const char*> kWho[] = {
        {Role::Admin, "root"}, {Role::TopUp, "mum"}, {Role::Read, "anna"}};
    for (std::size_t i = 0; i < std::size(kWho); ++i) {
      Be(kWho[i].first, kWho[i].second);
      const ControlAnswer answer =
          Ask(row.method, row.target, row.body,
              row.status[0] == 412 ? std::optional<QByteArray>("\"99\"") : std::nullopt);
      EXPECT_EQ(answer.status, row.status[i]) << kWho[i].second << ": " << Text(answer);
      EXPECT_EQ(Code(answer) == "forbidden", row.status[i] == 403);
    }
  }

  Be(Role::Admin, "root");
  EXPECT_EQ(Text(Ask("GET", "/v1/users")), R"({"users":["anna","ben"]})");
  Be(Role::Read, "anna");
  EXPECT_EQ(Text(Ask("GET", "/v1/users")), R"({"users":["anna"]})");
  Be(Role::Read, "");
  EXPECT_EQ(Text(Ask("GET", "/v1/users")), R"({"users":[]})");
}

// --- Errors.

TEST_F(ControlApi, EachErrorHasItsCodeAndItsField) {
  const std::optional<QByteArray> one("\"1\"");
  const std::optional<QByteArray> none;
  const struct {
    const char* what;
    const char* method;
    QByteArray target;
    QByteArray body;
    std::optional<QByteArray> ifMatch;
    std::optional<QByteArray> ifNoneMatch;
    int status;
    const char* code;
    const char* field;
  } kRows[] = {
      // clang-format off
      {"no such resource", "GET", "/v2/status", {}, none, none, 404, "not-found", ""},
      {"an unknown identifier", "GET", "/v1/users/anna/limits/x", {}, none, none, 404, "not-found", ""},
      {"credit of an unknown identifier", "PUT", "/v1/users/anna/limits/x/credit",
       R"({"minutes":1,"id":"z"})", none, none, 404, "not-found", ""},
      {"another method", "POST", kGame, {}, none, none, 405, "method-not-allowed", ""},
      {"a stray percent sign", "GET", "/v1/users/an%na/limits", {}, none, none, 400, "bad-request", ""},
      {"a body where none belongs", "GET", kGame, "{}", none, none, 400, "bad-request", ""},
      {"an unknown query field", "GET", "/v1/ledger?since=1", {}, none, none, 400, "unknown-field", "since"},
      {"a query field twice", "GET", "/v1/ledger?after=1&after=2", {}, none, none, 400, "bad-request", ""},
      {"a negative row", "GET", "/v1/ledger?after=-1", {}, none, none, 422, "bad-value", "after"},
      {"too many rows", "GET", "/v1/ledger?limit=1001", {}, none, none, 422, "bad-value", "limit"},

      {"no precondition", "PATCH", kGame, R"({"limits":{}})", none, none, 428, "precondition-required", ""},
      {"both preconditions", "PATCH", kGame, R"({"limits":{}})", one, "*", 400, "bad-request", ""},
      {"any revision", "PATCH", kGame, R"({"limits":{}})", "*", none, 400, "bad-request", "If-Match"},
      {"a removal of any revision", "DELETE", kGame, {}, none, none, 428, "precondition-required", ""},
      {"a removal of an old revision", "DELETE", kGame, {}, "\"7\"", none, 412, "revision-mismatch", ""},
      {"a removal of what is not there", "DELETE", kGame, {}, none, "*", 400, "bad-request", "If-None-Match"},
      {"a removal of an unknown identifier", "DELETE", "/v1/users/anna/limits/x", {}, one, none, 404, "not-found", ""},
      {"a removal with a body", "DELETE", kGame, "{}", one, none, 400, "bad-request", ""},
      {"no JSON", "PATCH", kGame, "limits", one, none, 400, "bad-request", ""},
      {"JSON nested too deep", "PATCH", kGame, QByteArray(60000, '['), one, none, 400, "bad-request", ""},
      {"an unknown field", "PATCH", kGame, R"({"limits":{},"actor":"root"})", one, none, 400, "unknown-field", "actor"},
      {"limits that are no object", "PATCH", kGame, R"({"limits":5})", one, none, 422, "bad-value", "limits"},
      {"no change at all", "PATCH", kGame, "{}", one, none, 422, "bad-value", "limits"},
      {"options that are no object", "PATCH", kGame, R"({"options":[]})", one, none, 422, "bad-value", "options"},
      {"an unknown option", "PATCH", kGame, R"({"options":{"rollover":true}})", one, none, 400, "unknown-field", "options.rollover"},
      {"an option of another kind", "PATCH", kGame, R"({"options":{"rollOver":1}})", one, none, 422, "bad-value", "options.rollOver"},
      {"a negative cap", "PATCH", kGame, R"({"options":{"rollOverCap":-1}})", one, none, 422, "bad-value", "options.rollOverCap"},
      {"a cap above any credit", "PATCH", kGame, R"({"options":{"rollOverCap":2147483648}})", one, none, 422, "bad-value", "options.rollOverCap"},
      {"a good option beside a bad key", "PATCH", kGame, R"({"options":{"rollOver":true},"limits":{"WD stop":1441}})", one, none, 422, "bad-value", "WD stop"},
      {"an option of the global settings", "PATCH", "/v1/users/anna/limits/com.brenwick.globalSettings", R"({"options":{"rollOver":true}})", none, "*", 422, "bad-value", "options.rollOver"},
      {"a scope of another kind", "PATCH", kGame, R"({"options":{"scope":"host"}})", one, none, 422, "bad-value", "options.scope"},
      {"a way of counting hosts that is none", "PATCH", kGame, R"({"options":{"parallel":null}})", one, none, 422, "bad-value", "options.parallel"},
      {"unlimited by a number", "PATCH", kGame, R"({"options":{"unlimited":1}})", one, none, 422, "bad-value", "options.unlimited"},
      {"a schedule that is a list", "PATCH", kGame, R"({"options":{"schedule":[]}})", one, none, 422, "bad-value", "options.schedule"},
      {"a window that ends never, beside a good option", "PATCH", kGame, R"({"options":{"scope":"user","schedule":)" + ScheduleWith(R"([{"start":"08:00","stop":"09:00"},{"start":"10:00","stop":"25:00"}])") + "}}", one, none, 422, "bad-value", "options.schedule.days.monday[1].stop"},
      {"a schedule larger than a request may be", "PATCH", kGame, R"({"options":{"schedule":)" + ScheduleWith("[]", QByteArray(kMaxScheduleBytes / 40, 'n')) + "}}", one, none, 422, "bad-value", "options.schedule"},
      {"an unknown key", "PATCH", kGame, R"({"limits":{"WD begin":1}})", one, none, 422, "unknown-key", "WD begin"},
      {"a good key beside a bad one", "PATCH", kGame, R"({"limits":{"Credit":99,"WD stop":1441}})", one, none, 422, "bad-value", "WD stop"},

      {"no minutes", "PUT", kGameCredit, R"({"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"half a minute", "PUT", kGameCredit, R"({"minutes":0.5,"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"the sentinel as credit", "PUT", kGameCredit, R"({"minutes":12345,"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"no id", "PUT", kGameCredit, R"({"minutes":5})", none, none, 422, "bad-value", "id"},
      {"a reason that is no text", "PUT", kGameCredit, R"({"minutes":5,"id":"a","reason":[]})", none, none, 422, "bad-value", "reason"},
      {"nothing added", "POST", kGameAdjustments, R"({"minutes":0,"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"more than any credit added", "POST", kGameAdjustments, R"({"minutes":2147483648,"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"a long id", "POST", kGameAdjustments, R"({"minutes":1,"id":")" + QByteArray(129, 'a') + "\"}", none, none, 422, "bad-value", "id"},
      {"added to an unknown identifier", "POST", "/v1/users/anna/limits/x/adjustments", R"({"minutes":1,"id":"z"})", none, none, 404, "not-found", ""},

      {"usage of nobody", "GET", "/v1/users/carl/usage", {}, none, none, 404, "not-found", ""},
      {"usage of an unknown identifier", "GET", "/v1/users/anna/limits/x/usage", {}, none, none, 404, "not-found", ""},
      {"a day that does not exist", "GET", "/v1/users/anna/usage?from=2009-02-29", {}, none, none, 422, "bad-value", "from"},
      {"a day in another form", "GET", "/v1/users/anna/usage?to=5-3-2009", {}, none, none, 422, "bad-value", "to"},
      {"a time for a day", "GET", "/v1/users/anna/usage?to=2009-03-05T00:00:00", {}, none, none, 422, "bad-value", "to"},
      {"an end before its beginning", "GET", "/v1/users/anna/usage?from=2009-03-05&to=2009-03-04", {}, none, none, 422, "bad-value", "to"},
      {"who did it", "PUT", kGameCredit, R"({"minutes":5,"id":"a","actor":"root"})", none, none, 400, "unknown-field", "actor"},
      // clang-format on
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    const ControlAnswer answer =
        Ask(row.method, row.target, row.body, row.ifMatch, row.ifNoneMatch);
    EXPECT_EQ(answer.status, row.status) << Text(answer);
    EXPECT_EQ(answer.contentType, "application/problem+json");
    const QJsonObject problem = Json(answer);
    EXPECT_EQ(problem.value(QLatin1String("status")), row.status);
    EXPECT_EQ(Code(answer), row.code) << Text(answer);
    EXPECT_FALSE(problem.value(QLatin1String("title")).toString().isEmpty());
    EXPECT_EQ(problem.value(QLatin1String("field")).toString(), QLatin1String(row.field));
  }
  EXPECT_EQ(Credit(), 30) << "a refused request changed something";
  EXPECT_EQ(household_->Limits(anna_, game_)->revision, 1u);
}

TEST(ControlJson, TimesCarryTheirOffset) {
  const QDateTime utc(QDate(2010, 7, 1), QTime(6, 5, 4, 30), Qt::UTC);
  EXPECT_EQ(ToRfc3339(utc), u"2010-07-01T06:05:04.030Z");
  EXPECT_EQ(ToRfc3339(utc.toOffsetFromUtc(-12600)), u"2010-07-01T02:35:04.030-03:30");
}

}  // namespace
}  // namespace vardell::server
