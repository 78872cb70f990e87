#include "server/ControlApi.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <array>
#include <optional>
#include <utility>

#include "Common Sources/Caps.h"
#include "server/ControlJson.h"
#include "tests/server/HouseholdFixture.h"

namespace vardell::server {
namespace {

constexpr char kGame[] = "/v1/users/anna/limits/org.example.game";
constexpr char kGameCredit[] = "/v1/users/anna/limits/org.example.game/credit";

class ControlApi : public HouseholdFixture {
 protected:
  void SetUp() override {
    HouseholdFixture::SetUp();
    Limit({{QStringLiteral("Credit"), 30}, {QStringLiteral("WD start"), 480}});
  }

  ControlAnswer Ask(const char* method, const QByteArray& target, const QByteArray& body = {},
                    std::optional<QByteArray> ifMatch = {},
                    std::optional<QByteArray> ifNoneMatch = {}) {
    const ControlResources resources{*household_, [this] { return status_; }};
    return AnswerControlRequest(resources, requester_,
                                {method, target, ifMatch, ifNoneMatch, body});
  }
  static QJsonObject Json(const ControlAnswer& answer) {
    return QJsonDocument::fromJson(answer.body).object();
  }
  // The object's text, without its spaces and in the order of its keys.
  static QByteArray Text(const ControlAnswer& answer) { return answer.body.trimmed(); }
  static QByteArray Code(const ControlAnswer& answer) {
    return Json(answer).value(QLatin1String("code")).toString().toLatin1();
  }
  void Be(Role role, const char* name) {
    requester_ = {{1234, QStringLiteral("uid 1234 (%1)").arg(QLatin1String(name))},
                  QString::fromLatin1(name),
                  role};
  }

  ServerStatus status_{QStringLiteral("0.1"), QStringLiteral("127.0.0.1:40001"),
                       QStringLiteral("Vardell on den"), 3, now_};
  Requester requester_{{0, QStringLiteral("uid 0 (root)")}, QStringLiteral("root"), Role::Admin};
};

// --- What the resources show.

TEST_F(ControlApi, StatusShowsTheServer) {
  const QJsonObject status = Json(Ask("GET", "/v1/status"));
  EXPECT_EQ(status.value(QLatin1String("version")), QStringLiteral("0.1"));
  EXPECT_EQ(status.value(QLatin1String("address")), QStringLiteral("127.0.0.1:40001"));
  EXPECT_EQ(status.value(QLatin1String("published")), QStringLiteral("Vardell on den"));
  EXPECT_EQ(status.value(QLatin1String("agents")), 3);
  EXPECT_EQ(status.value(QLatin1String("started")),
            QStringLiteral("2009-03-05T18:00:00.000+01:00"));
  EXPECT_TRUE(status.value(QLatin1String("store")).toString().contains(StorePath()));
  status_.published.reset();
  EXPECT_TRUE(Json(Ask("GET", "/v1/status")).value(QLatin1String("published")).isNull());
}

TEST_F(ControlApi, ALimitHasItsKeysItsCreditAndItsRevision) {
  const ControlAnswer answer = Ask("GET", kGame);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.contentType, "application/json");
  EXPECT_EQ(answer.etag, "\"1\"");
  const QJsonObject limit = Json(answer);
  EXPECT_EQ(limit.value(QLatin1String("user")), anna_);
  EXPECT_EQ(limit.value(QLatin1String("identifier")), game_);
  EXPECT_EQ(limit.value(QLatin1String("credit")), 30);
  EXPECT_EQ(limit.value(QLatin1String("revision")), 1);
  const QJsonObject keys = limit.value(QLatin1String("limits")).toObject();
  EXPECT_EQ(keys.size(), 15);
  EXPECT_EQ(keys.value(QLatin1String("WD start")), 480);
  EXPECT_EQ(keys.value(QLatin1String("Enabled")), true);
  EXPECT_FALSE(keys.contains(QLatin1String("Credit")));

  const QJsonArray all =
      Json(Ask("GET", "/v1/users/anna/limits")).value(QLatin1String("limits")).toArray();
  ASSERT_EQ(all.size(), 1);
  EXPECT_EQ(all.at(0).toObject(), limit);
}

TEST_F(ControlApi, IdentifiersMayHoldAnyCharacter) {
  const QString odd = QStringLiteral("a b/c?d#e%f+g\u00e9\U0001F3AE");
  Limit({{QStringLiteral("Credit"), 5}}, odd, anna_);
  const QByteArray encoded = odd.toUtf8().toPercentEncoding();
  const ControlAnswer answer = Ask("GET", "/v1/users/anna/limits/" + encoded);
  EXPECT_EQ(Json(answer).value(QLatin1String("identifier")), odd);
  const QJsonArray rows =
      Json(Ask("GET", "/v1/ledger?identifier=" + encoded)).value(QLatin1String("rows")).toArray();
  EXPECT_EQ(rows.size(), 1);
}

TEST_F(ControlApi, TheLedgerPagesAndFilters) {
  Limit({{QStringLiteral("Credit"), 7}}, game_, QStringLiteral("ben"));
  At(0);
  Start();
  Fetch();
  At(1);
  Report(29);
  const struct {
    const char* query;
    std::vector<int> minutes;
  } kRows[] = {
      {"", {30, 7, -1}},
      {"?user=anna", {30, -1}},
      {"?after=1", {7, -1}},
      {"?limit=1", {30}},
      {"?after=1&limit=1&user=anna", {-1}},
      {"?user=&identifier=", {30, 7, -1}},
      {"?user=carl", {}},
  };
  for (const auto& row : kRows) {
    const QJsonArray rows = Json(Ask("GET", QByteArray("/v1/ledger") + row.query))
                                .value(QLatin1String("rows"))
                                .toArray();
    std::vector<int> minutes;
    for (const QJsonValue& one : rows) {
      minutes.push_back(one.toObject().value(QLatin1String("minutes")).toInt(-99));
    }
    EXPECT_EQ(minutes, row.minutes) << row.query;
  }
}

TEST_F(ControlApi, ALedgerRowHasAllItsFields) {
  const QJsonObject row =
      Json(Ask("GET", "/v1/ledger")).value(QLatin1String("rows")).toArray().at(0).toObject();
  const QJsonObject expected{
      {QStringLiteral("id"), 1},
      {QStringLiteral("time"), QStringLiteral("2009-03-05T18:00:00.000+01:00")},
      {QStringLiteral("user"), anna_},
      {QStringLiteral("identifier"), game_},
      {QStringLiteral("host"), QString()},
      {QStringLiteral("source"), QStringLiteral("admin")},
      {QStringLiteral("minutes"), 30},
      {QStringLiteral("credit"), 30},
      {QStringLiteral("claimed"), QJsonValue::Null},
      {QStringLiteral("actor"), QStringLiteral("uid 0 (root)")}};
  for (const QString& field : expected.keys()) {
    EXPECT_EQ(row.value(field), expected.value(field)) << qPrintable(field);
  }
  EXPECT_TRUE(row.value(QLatin1String("reason")).isString());
}

// --- Changing.

TEST_F(ControlApi, PatchChangesTheNamedKeysUnderTheRevisionOnly) {
  const ControlAnswer changed = Ask("PATCH", kGame, R"({"limits":{"WD stop":1200}})", "\"1\"");
  EXPECT_EQ(changed.status, 200);
  EXPECT_EQ(changed.etag, "\"2\"");
  const auto entry = household_->Limits(anna_, game_);
  EXPECT_EQ(entry->limits.weekDayStart, 480);
  EXPECT_EQ(entry->limits.weekDayStop, 1200);

  const ControlAnswer late = Ask("PATCH", kGame, R"({"limits":{"WD stop":60}})", "\"1\"");
  EXPECT_EQ(late.status, 412);
  EXPECT_EQ(Code(late), "revision-mismatch");
  EXPECT_EQ(household_->Limits(anna_, game_)->limits.weekDayStop, 1200);
}

TEST_F(ControlApi, PatchMakesWhatIsNewAndOnlyThat) {
  const QByteArray body = R"({"limits":{"Credit":15}})";
  const ControlAnswer made = Ask("PATCH", "/v1/users/ben/limits/x", body, {}, "*");
  EXPECT_EQ(made.status, 201);
  EXPECT_EQ(made.etag, "\"1\"");
  EXPECT_EQ(household_->Limits(QStringLiteral("ben"), QStringLiteral("x"))->credit, 15);
  const ControlAnswer again = Ask("PATCH", "/v1/users/ben/limits/x", body, {}, "*");
  EXPECT_EQ(again.status, 412);
  EXPECT_EQ(Code(again), "revision-mismatch");
}

TEST_F(ControlApi, CreditIsSetOnceForEachId) {
  const QByteArray body = R"({"minutes":45,"id":"a1","reason":"homework"})";
  const ControlAnswer first = Ask("PUT", kGameCredit, body);
  EXPECT_EQ(first.status, 200);
  EXPECT_EQ(first.etag, "\"1\"") << "credit is no part of the revision";
  EXPECT_EQ(Credit(), 45);
  EXPECT_EQ(Ask("PUT", kGameCredit, body).status, 200);
  EXPECT_EQ(Ledger().size(), 2u) << "booked twice";
  EXPECT_EQ(Ledger().back().reason, QStringLiteral("homework"));
  EXPECT_EQ(Ledger().back().actor, requester_.actor.name);

  const ControlAnswer other = Ask("PUT", kGameCredit, R"({"minutes":46,"id":"a1"})");
  EXPECT_EQ(other.status, 409);
  EXPECT_EQ(Code(other), "id-reused");
  EXPECT_EQ(Credit(), 45);
}

// --- Who may.

TEST_F(ControlApi, EachResourceAsksForItsRole) {
  Limit({{QStringLiteral("Credit"), 7}}, game_, QStringLiteral("ben"));
  const QByteArray credit = R"({"minutes":30,"id":"same","reason":""})";
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
      {"PATCH", kGame, limits, {412, 403, 403}},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(std::string(row.method) + " " + row.target);
    const std::pair<Role, const char*> kWho[] = {
        {Role::Admin, "root"}, {Role::TopUp, "mum"}, {Role::Read, "anna"}};
    for (std::size_t i = 0; i < std::size(kWho); ++i) {
      Be(kWho[i].first, kWho[i].second);
      const ControlAnswer answer = Ask(
          row.method, row.target, row.body,
          QByteArray(row.method) == "PATCH" ? std::optional<QByteArray>("\"99\"") : std::nullopt);
      EXPECT_EQ(answer.status, row.status[i]) << kWho[i].second << ": " << Text(answer).data();
      if (row.status[i] == 403) {
        EXPECT_EQ(Code(answer), "forbidden");
      }
    }
  }
}

TEST_F(ControlApi, AUserSeesNoOtherUserListed) {
  Limit({{QStringLiteral("Credit"), 7}}, game_, QStringLiteral("ben"));
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
  const QByteArray longName(static_cast<int>(kMaxNameBytes) + 1, 'x');
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
      {"a resource's folder", "GET", "/v1/users/anna", {}, none, none, 404, "not-found", ""},
      {"the root", "GET", "/", {}, none, none, 400, "bad-request", ""},
      {"an unknown identifier", "GET", "/v1/users/anna/limits/x", {}, none, none, 404, "not-found", ""},
      {"credit of an unknown identifier", "PUT", "/v1/users/anna/limits/x/credit",
       R"({"minutes":1,"id":"z"})", none, none, 404, "not-found", ""},
      {"another method", "DELETE", kGame, {}, none, none, 405, "method-not-allowed", ""},
      {"a stray percent sign", "GET", "/v1/users/an%na/limits", {}, none, none, 400, "bad-request", ""},
      {"bytes that are no UTF-8", "GET", "/v1/users/%ff/limits", {}, none, none, 400, "bad-request", ""},
      {"an overlong name", "GET", "/v1/users/" + longName + "/limits", {}, none, none, 400, "bad-request", ""},
      {"an empty part", "GET", "/v1/users//limits", {}, none, none, 400, "bad-request", ""},
      {"a body where none belongs", "GET", kGame, "{}", none, none, 400, "bad-request", ""},
      {"an unknown query field", "GET", "/v1/ledger?since=1", {}, none, none, 400, "unknown-field", "since"},
      {"a query field twice", "GET", "/v1/ledger?after=1&after=2", {}, none, none, 400, "bad-request", ""},
      {"a query where none belongs", "GET", "/v1/status?x=1", {}, none, none, 400, "unknown-field", "x"},
      {"a negative row", "GET", "/v1/ledger?after=-1", {}, none, none, 422, "bad-value", "after"},
      {"no number", "GET", "/v1/ledger?after=x", {}, none, none, 422, "bad-value", "after"},
      {"no rows at all", "GET", "/v1/ledger?limit=0", {}, none, none, 422, "bad-value", "limit"},
      {"too many rows", "GET", "/v1/ledger?limit=1001", {}, none, none, 422, "bad-value", "limit"},

      {"no precondition", "PATCH", kGame, R"({"limits":{}})", none, none, 428, "precondition-required", ""},
      {"both preconditions", "PATCH", kGame, R"({"limits":{}})", one, "*", 400, "bad-request", ""},
      {"a revision without quotes", "PATCH", kGame, R"({"limits":{}})", "1", none, 400, "bad-request", "If-Match"},
      {"any revision", "PATCH", kGame, R"({"limits":{}})", "*", none, 400, "bad-request", "If-Match"},
      {"a revision that is not to match", "PATCH", kGame, R"({"limits":{}})", none, one, 400, "bad-request", "If-None-Match"},
      {"no JSON", "PATCH", kGame, "limits", one, none, 400, "bad-request", ""},
      {"no body", "PATCH", kGame, {}, one, none, 400, "bad-request", ""},
      {"an array", "PATCH", kGame, "[]", one, none, 400, "bad-request", ""},
      {"JSON nested too deep", "PATCH", kGame, QByteArray(60000, '['), one, none, 400, "bad-request", ""},
      {"an unknown field", "PATCH", kGame, R"({"limits":{},"actor":"root"})", one, none, 400, "unknown-field", "actor"},
      {"limits that are no object", "PATCH", kGame, R"({"limits":5})", one, none, 422, "bad-value", "limits"},
      {"an unknown key", "PATCH", kGame, R"({"limits":{"WD begin":1}})", one, none, 422, "unknown-key", "WD begin"},
      {"a start after midnight", "PATCH", kGame, R"({"limits":{"WD start":1440}})", one, none, 422, "bad-value", "WD start"},
      {"a text for a number", "PATCH", kGame, R"({"limits":{"WD start":"480"}})", one, none, 422, "bad-value", "WD start"},
      {"a fraction of a minute", "PATCH", kGame, R"({"limits":{"Credit":1.5}})", one, none, 422, "bad-value", "Credit"},
      {"the sentinel", "PATCH", kGame, R"({"limits":{"Credit":12345}})", one, none, 422, "bad-value", "Credit"},
      {"a number for a boolean", "PATCH", kGame, R"({"limits":{"Enabled":1}})", one, none, 422, "bad-value", "Enabled"},
      {"a good key beside a bad one", "PATCH", kGame, R"({"limits":{"Credit":99,"WD stop":1441}})", one, none, 422, "bad-value", "WD stop"},

      {"no minutes", "PUT", kGameCredit, R"({"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"minutes as text", "PUT", kGameCredit, R"({"minutes":"5","id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"half a minute", "PUT", kGameCredit, R"({"minutes":0.5,"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"more than any number", "PUT", kGameCredit, R"({"minutes":1e300,"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"negative minutes", "PUT", kGameCredit, R"({"minutes":-1,"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"the sentinel as credit", "PUT", kGameCredit, R"({"minutes":12345,"id":"a"})", none, none, 422, "bad-value", "minutes"},
      {"no id", "PUT", kGameCredit, R"({"minutes":5})", none, none, 422, "bad-value", "id"},
      {"an empty id", "PUT", kGameCredit, R"({"minutes":5,"id":""})", none, none, 422, "bad-value", "id"},
      {"an id that is no text", "PUT", kGameCredit, R"({"minutes":5,"id":7})", none, none, 422, "bad-value", "id"},
      {"a reason that is no text", "PUT", kGameCredit, R"({"minutes":5,"id":"a","reason":[]})", none, none, 422, "bad-value", "reason"},
      {"who did it", "PUT", kGameCredit, R"({"minutes":5,"id":"a","actor":"root"})", none, none, 400, "unknown-field", "actor"},
      // clang-format on
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    const ControlAnswer answer =
        Ask(row.method, row.target, row.body, row.ifMatch, row.ifNoneMatch);
    EXPECT_EQ(answer.status, row.status) << Text(answer).data();
    EXPECT_EQ(answer.contentType, "application/problem+json");
    const QJsonObject problem = Json(answer);
    EXPECT_EQ(problem.value(QLatin1String("status")), row.status);
    EXPECT_EQ(Code(answer), row.code) << Text(answer).data();
    EXPECT_FALSE(problem.value(QLatin1String("title")).toString().isEmpty());
    EXPECT_EQ(problem.value(QLatin1String("field")).toString(), QLatin1String(row.field));
  }
  EXPECT_EQ(Credit(), 30) << "a refused request changed something";
  EXPECT_EQ(household_->Limits(anna_, game_)->revision, 1u);
}

TEST_F(ControlApi, AMissingMethodIsToldWhatThereIs) {
  EXPECT_EQ(Ask("DELETE", kGame).allow, "GET, PATCH");
  EXPECT_EQ(Ask("POST", kGameCredit).allow, "PUT");
}

TEST(ControlJson, TimesCarryTheirOffset) {
  const QDateTime utc(QDate(2010, 7, 1), QTime(6, 5, 4, 30), Qt::UTC);
  EXPECT_EQ(ToRfc3339(utc), QStringLiteral("2010-07-01T06:05:04.030Z"));
  EXPECT_EQ(ToRfc3339(utc.toOffsetFromUtc(-12600)),
            QStringLiteral("2010-07-01T02:35:04.030-03:30"));
}

}  // namespace
}  // namespace vardell::server
