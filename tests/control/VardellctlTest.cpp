// The real vardellctl against a scripted Server.
#include <gtest/gtest.h>

#include <QJsonObject>

#include "control/HttpClient.h"
#include "tests/control/RunVardellctl.h"
#include "tests/support/Program.h"

namespace vardell::test {
namespace {

// ---- what is wrong is refused before the Server hears of it ----

TEST(Vardellctl, MisuseIsRefusedWithoutAskingTheServer) {
  const struct {
    const char* words;
    const char* says;
  } rows[] = {{"limits|set|anna|org.game|Bedtime=9", "there is no key \"Bedtime\""},
              {"limits|set|anna|org.game|Credit=ten", "\"Credit\" cannot be \"ten\""},
              {"limits|set|anna|org.game|Credit=12345", "but not 12345, which means"},
              {"limits|set|anna|org.game|WD start=1440", "from 0 to 1439, or a time from 00:00"},
              {"limits|set|anna|org.game|WE stop=24:01", "\"WE stop\" cannot be \"24:01\""},
              {"limits|set|anna|org.game|WD start=8:5", "\"WD start\" cannot be \"8:5\""},
              {"limits|set|anna|org.game|Enabled=maybe", "it takes true or false"},
              {"limits|set|anna|org.game|AutoUpdateCoeff=59", "60 (hours) or 1 (minutes)"},
              {"limits|set|anna|org.game|NextAutoUpdate=soon", "local date and time"},
              {"limits|set|anna|org.game|Roll Over=180", "\"Roll Over\" cannot be \"180\""},
              {"limits|set|anna|org.game|Roll Over Cap=2147483648", "of minutes, or none"},
              {"limits|set|anna|org.game|WD start=1|WD start=2", "is given twice"},
              {"limits|set|anna|org.game|Enabled=true|WD stop=x", "\"WD stop\" cannot be"},
              {"limits|set|anna|org.game|Enabled", "is not KEY=VALUE"},
              {"limits|set|anna|org.game", "usage: vardellctl limits set"},
              {"limits|set||org.game|Enabled=1", "the user name is empty"},
              {"limits|show|anna|a\x1b[2J", "a character that it cannot have"},
              {"credit|set|anna|org.game|12345", "but not 12345, which means"},
              {"credit|set|anna|org.game|99999999999", "from 0 to 2147483647"},
              {"ledger|--after|-1", "--after wants the number of a ledger row"},
              {"ledger|--reason|x", "--reason does not go with \"ledger\""},
              {"status|--frobnicate", "there is no option \"--frobnicate\""},
              {"status|--json|--json", "--json is given twice"},
              {"ledger|--after", "--after wants a value"},
              {"usage|anna|--period|year", "--period takes today, week, month, all"},
              {"limits|preset|anna|org.game", "usage: vardellctl limits preset"},
              {"limits|preset|anna|org.game|holiday", "there are: school-day, weekend, bedtime"},
              {"limits|preset|anna|org.game|bedtime|WD stop=x", "\"WD stop\" cannot be \"x\""},
              {"limits|unset|anna|org.game|Bedtime", "there is no key \"Bedtime\""},
              {"limits|unset|anna|org.game|Enabled|Credit", "\"Credit\" cannot be unset"},
              {"credit|add|anna|org.game|-0", "adding 0 minutes changes nothing"},
              {"credit|add|anna|org.game|--5", "there is no option \"--5\""},
              {"limits|destroy", "there are: limits show, limits set"},
              {"credit|add|anna|home|5", "a home folder has no credit"},
              {"usage", "\nvardellctl usage --help tells more."},
              {"destroy|all", "there is no command \"destroy\"\nvardellctl --help"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.words);
    const Outcome outcome = Vardellctl(row.words, {});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.output, QString());
    EXPECT_TRUE(outcome.error.contains(QString::fromUtf8(row.says))) << qPrintable(outcome.error);
    EXPECT_TRUE(outcome.requests.empty());
  }
}

// ---- requests ----

TEST(Vardellctl, AChangeThatIsForestalledIsTriedAnewAndThenGivenUp) {
  const QByteArray mismatch = Answer(412, R"({"code":"revision-mismatch","title":"changed"})");
  std::vector<QByteArray> script;
  for (int i = 0; i < 20; ++i) script.insert(script.end(), {Answer(200, Limit(7 + i)), mismatch});
  const Outcome outcome = Vardellctl("limits|set|anna|org.game|Enabled=off", script);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.error, u"vardellctl: changed\n"_s);
  ASSERT_EQ(outcome.requests.size(), 10u);
  for (const int attempt : {0, 4}) {
    const QByteArray& patch = outcome.requests[1 + 2 * attempt];
    EXPECT_TRUE(patch.contains("\r\nIf-Match: \"" + QByteArray::number(7 + attempt) + "\"\r\n"));
    EXPECT_EQ(BodyOf(patch), (QJsonObject{{u"limits"_s, QJsonObject{{u"Enabled"_s, false}}}}));
  }
}

TEST(Vardellctl, CreditIsSetUnderAnIdWithItsReason) {
  const std::vector<QByteArray> answers{Answer(200, Limit(1, 45))};
  const auto [status, output, error, requests] =
      Vardellctl("credit|set|anna|org.game|45|--reason|tidied up|--id|monday", answers);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(output, u"USER  IDENTIFIER  MINUTES\nanna  org.game         45\n"_s);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(FirstLine(requests[0]), "PUT /v1/users/anna/limits/org.game/credit HTTP/1.1");
  EXPECT_EQ(
      BodyOf(requests[0]),
      (QJsonObject{{u"minutes"_s, 45}, {u"id"_s, u"monday"_s}, {u"reason"_s, u"tidied up"_s}}));
  const Outcome unnamed = Vardellctl("credit|set|anna|org.game|45", answers);
  EXPECT_EQ(BodyOf(unnamed.requests.at(0))[u"id"_s].toString().size(), 36);
}

// ---- what is shown ----

TEST(Vardellctl, AnswersAreShownAsTablesInLocalTime) {
  const QByteArray firstPage =
      R"({"rows":[{"id":1,"time":"2026-07-01T08:00:00Z","user":"anna","identifier":"org.game",)"
      R"("host":"","source":"admin","minutes":2,"credit":2,"claimed":null,"actor":"uid 0 [root]",)"
      R"("reason":"start"}]})";
  const QByteArray secondPage =
      R"({"rows":[{"id":12,"time":"2026-12-01T08:00:00Z","user":"anna","identifier":"org.game",)"
      R"("host":"local","source":"report","minutes":-1,"credit":1,"claimed":1,"actor":"anna",)"
      R"("reason":""}]})";
  const QByteArray hostile =
      R"({"user":"anna","identifier":"x\u001b]0;evil\u0007\u202e","credit":1,"limits":{}})";
  const struct {
    const char* words;
    std::vector<QByteArray> answers;
    const char* output;
    const char* lastRequest;
  } rows[] = {
      {"ledger|anna|--after|0",
       {firstPage, secondPage, R"({"rows":[]})"},
       "ID  TIME                 USER  IDENTIFIER  SOURCE  MINUTES  CREDIT  CLAIMED  HOST   "
       "ACTOR         REASON\n"
       " 1  2026-07-01 10:00:00  anna  org.game    admin         2       2        -         "
       "uid 0 [root]  start\n"
       "12  2026-12-01 09:00:00  anna  org.game    report       -1       1        1  local  "
       "anna\n",
       "GET /v1/ledger?after=12&user=anna&identifier=&limit=500 HTTP/1.1"},
      {"credit|show|anna",
       {"{\"limits\":[" + hostile + "]}"},  // no command for the terminal
       "USER  IDENTIFIER   MINUTES\nanna  x\uFFFD]0;evil\uFFFD\uFFFD        1\n",
       "GET /v1/users/anna/limits HTTP/1.1"},
      {"status",
       {R"({"version":")" VARDELL_VERSION
        R"(","store":"PostgreSQL, db","schema":4,"address":"127.0.0.1:4",)"
        R"("storeAway":"no answer;\u001b[2J start the database","spooled":12,"waiting":0,)"
        R"("storeAwaySince":"2026-01-01T00:00:00Z","published":"V","agents":0,"users":1,)"
        R"("limits":5,"zone":"Europe/Oslo","started":"2026-01-01T00:00:00Z"})",
        R"({"agents":[]})"},
       "Server:     " VARDELL_VERSION "\n"
       "Store:      PostgreSQL, db, schema 4\n"
       "Store is:   AWAY since 2026-01-01 01:00:00: no answer;\uFFFD[2J start the database\n"
       "Address:    127.0.0.1:4\n"
       "Published:  V\n"
       "Started:    2026-01-01 01:00:00\n"
       "Time zone:  Europe/Oslo\n"
       "Users:      1\n"
       "Limits:     5\n"
       "Waiting:    nothing\n"
       "Spooled:    12 changes are kept on disk until the store takes them\n"
       "Agents:     0\n"
       "\n"
       "The store is away. Agents go on, and what they use is kept until it is back; limits and "
       "credit\n"
       "cannot be changed until then. See to its database or its disk as said above: the Server "
       "finds\n"
       "it again by itself within seconds. journalctl -u vardell-server tells more.\n",
       "GET /v1/agents HTTP/1.1"},
      {"metrics",
       {"# HELP a b\n# TYPE a counter\na{k=\"x y\"} 3\nup\x1b 1\n"},
       "# HELP a b\n# TYPE a counter\na{k=\"x y\"} 3\nup\uFFFD 1\n",
       "GET /v1/metrics HTTP/1.1"},
      {"--json|metrics",
       {"# HELP a b\n# TYPE a counter\na{k=\"x y\"} 3\n\nup 1\n"},
       "{\n    \"a{k=\\\"x y\\\"}\": 3,\n    \"up\": 1\n}\n",
       "GET /v1/metrics HTTP/1.1"},
      {"status",
       {R"({"version":"9.9","store":"SQLite /x","schema":3,"address":"127.0.0.1:4",)"
        R"("published":null,"agents":2,"users":1,"limits":5,"waiting":1,"zone":"Europe/Oslo",)"
        R"("started":"2026-01-01T00:00:00Z"})",
        R"({"agents":[{"user":"anna","host":"local","since":"2026-01-01T08:00:00Z",)"
        R"("applications":[{"identifier":"com.apple.loginwindow","credit":42},)"
        R"({"identifier":"org.game","credit":12345},{"identifier":"\u009b2J","credit":null}]},)"
        R"({"user":null,"host":"::1","since":"2026-07-01T08:00:00Z","applications":[]}]})"},
       "Server:      9.9\n"
       "vardellctl:  " VARDELL_VERSION ", another version than the Server's\n"
       "Store:       SQLite /x, schema 3\n"
       "Address:     127.0.0.1:4\n"
       "Published:   no\n"
       "Started:     2026-01-01 01:00:00\n"
       "Time zone:   Europe/Oslo\n"
       "Users:       1\n"
       "Limits:      5\n"
       "Waiting:     1 change is not on disk yet; journalctl -u vardell-server says why\n"
       "Agents:      2\n"
       "\n"
       "USER  HOST   SINCE                APPLICATIONS\n"
       "anna  local  2026-01-01 09:00:00  computer (42 min), org.game (spent), \uFFFD2J (no "
       "limit)\n"
       "-     ::1    2026-07-01 10:00:00  -\n",
       "GET /v1/agents HTTP/1.1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.words);
    std::vector<QByteArray> answers;
    for (const QByteArray& json : row.answers) answers.push_back(Answer(200, json));
    const auto [status, output, error, requests] = Vardellctl(row.words, answers);
    EXPECT_EQ(status, 0) << qPrintable(error);
    EXPECT_EQ(output.toStdString(), row.output);
    ASSERT_EQ(requests.size(), answers.size());
    EXPECT_EQ(FirstLine(requests.back()), row.lastRequest);
  }
}

// ---- failures ----

TEST(Vardellctl, AFailureIsOneClearErrorAndAnExitStatus) {
  const struct {
    QByteArray answer;
    int status;
    const char* says;
  } rows[] = {
      {Answer(
           409,
           R"({"code":"id-reused","title":"used before","field":"id","hint":"take another id"})"),
       1, "vardellctl: used before (id)\ntake another id\n"},
      {kNotFound, 1, "No limit\nvardellctl limits show lists the limits, limits set makes one."},
      {Answer(422, R"({"title":"no \"com.apple.loginwindow\""})"), 1, "no \"computer\"\n"},
      {Answer(503, "busy"), 1, "answered with status 503"},
      {"", 3, "gave no answer: it hung up before its answer was complete"},
      {"", 3, "--id k is safe to repeat"},
      {"HTTP/1.1 200 OK\r\nConte", 3, "it hung up"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{", 3, "it hung up"},
      {"220 mail.example.org ESMTP\r\n\r\n", 1, "its answer makes no sense"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n", 1, "its answer makes no sense"},
      {Answer(200, "{\"credit\":"), 1, "no JSON object"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.answer.data());
    const Outcome outcome = Vardellctl("credit|set|anna|org.game|5|--id|k", {row.answer});
    EXPECT_EQ(outcome.status, row.status);
    EXPECT_EQ(outcome.output, QString());
    EXPECT_TRUE(outcome.error.contains(QString::fromUtf8(row.says))) << qPrintable(outcome.error);
  }
}

TEST(Vardellctl, AServerThatIsNotThereIsSaidWithWhatToDoButHelpNeedsNone) {
  const QString nowhere = u"/nonexistent/socket"_s;
  const Outcome outcome = RunAt(nowhere, Words("status"));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(outcome.error.contains(u"/nonexistent/socket: No such file"_s));
  EXPECT_TRUE(outcome.error.contains(u"systemctl start vardell-server"_s));
  EXPECT_EQ(RunAt(nowhere, Words("--version")).status, 0);
  const Outcome help = RunAt(nowhere, Words("limits|--help"));
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.output.contains(u"limits set USER IDENTIFIER KEY=VALUE..."_s));
}

TEST(Vardellctl, WhatATerminalWouldObeyIsEscapedInJson) {
  const QByteArray answer = R"({"user":"\u009b2J\u202e\u007f\u2028é\ud83d\ude00","credit":1})";
  const QByteArray json =
      Vardellctl("--json|limits|show|anna|x", {Answer(200, answer)}).output.toUtf8();
  EXPECT_TRUE(json.contains(R"("\u009b2J\u202e\u007f\u2028)"
                            "é\U0001F600\""))
      << json.data();
  EXPECT_EQ(QJsonDocument::fromJson(json), QJsonDocument::fromJson(answer));
}

TEST(Vardellctl, WhatCannotBePrintedIsAFailureThatIsSaid) {
  const Finished full =
      test::Run({"/bin/sh", "-c", "'" VARDELL_BIN_DIR "/vardellctl' --version >/dev/full"}, {});
  EXPECT_EQ(full.status, 1);
  EXPECT_EQ(full.output,
            u"vardellctl: what was to be shown could not be written: No space left on device\n"_s);
}

TEST(Vardellctl, ALongLedgerIsReadInParts) {
  std::vector<QByteArray> pages;
  for (int page = 0; page < 50; ++page) {
    QByteArray rows;
    for (int row = 1; row <= 1000; ++row) {
      rows += (row > 1 ? ",{\"id\":" : "{\"id\":") + QByteArray::number(page * 1000 + row) + "}";
    }
    pages.push_back(Answer(200, "{\"rows\":[" + rows + "]}"));
  }
  const Outcome outcome = Vardellctl("ledger|--json", pages);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.requests.size(), 50u);
  EXPECT_TRUE(outcome.error.contains(u"--after 50000 shows the next ones"_s));
  EXPECT_EQ(QJsonDocument::fromJson(outcome.output.toUtf8())[u"more"_s], true);
}

TEST(Vardellctl, ALedgerThatDoesNotGoOnEndsTheReading) {
  const QByteArray page = Answer(200, R"({"rows":[{"id":5}]})");
  const Outcome outcome = Vardellctl("ledger", {page, page, page});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.requests.size(), 2u);
}

TEST(HttpClient, AServerThatSaysNothingIsGivenUpAtTheDeadline) {
  const ScriptedHttpPeer server({ScriptedHttpPeer::kSilence});
  const auto start = std::chrono::steady_clock::now();
  const control::HttpReply reply =
      control::HttpClient(server.path(), std::chrono::milliseconds(150)).Ask({"GET", "/", {}, {}});
  const auto taken = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(reply.outcome, control::HttpOutcome::NoAnswer);
  EXPECT_GE(taken, std::chrono::milliseconds(150));
  EXPECT_LT(taken, std::chrono::seconds(5));
}

}  // namespace
}  // namespace vardell::test
