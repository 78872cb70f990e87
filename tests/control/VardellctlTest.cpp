// The real vardellctl against a scripted Server.
#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include "Common Sources/Caps.h"
#include "control/HttpClient.h"
#include "tests/control/ScriptedHttpPeer.h"

namespace vardell::test {
namespace {

struct Outcome {
  int status = -1;
  QString output;
  QString error;
};

Outcome Vardellctl(const QString& control, const QStringList& arguments) {
  QProcess program;
  QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
  environment.insert(QStringLiteral("TZ"), QStringLiteral("Europe/Paris"));
  program.setProcessEnvironment(environment);
  program.start(QStringLiteral(VARDELL_BIN_DIR "/vardellctl"),
                QStringList{QStringLiteral("--control"), control} + arguments);
  program.waitForFinished(30000);
  return {program.exitStatus() == QProcess::NormalExit ? program.exitCode() : -1,
          QString::fromUtf8(program.readAllStandardOutput()),
          QString::fromUtf8(program.readAllStandardError())};
}

QStringList Words(const char* text) {
  return QString::fromUtf8(text).split(QLatin1Char('|'));
}

QByteArray FirstLine(const QByteArray& request) {
  return request.left(request.indexOf("\r\n"));
}

QJsonObject BodyOf(const QByteArray& request) {
  return QJsonDocument::fromJson(request.mid(request.indexOf("\r\n\r\n") + 4)).object();
}

QByteArray Limit(int revision, int credit = 30) {
  return "{\"user\":\"anna\",\"identifier\":\"org.game\",\"credit\":" + QByteArray::number(credit) +
         ",\"revision\":" + QByteArray::number(revision) +
         ",\"limits\":{\"Enabled\":true,\"WD Curfew Enabled\":true,\"WD start\":480,\"WD "
         "stop\":1200,\"WE stop\":1439}}";
}

const QByteArray kNotFound = Answer(404, R"({"status":404,"code":"not-found","title":"No limit"})");

// ---- what is wrong is refused before the Server hears of it ----

struct Misuse {
  const char* words;
  const char* says;
};

class VardellctlMisuse : public testing::TestWithParam<Misuse> {};

TEST_P(VardellctlMisuse, IsRefusedWithoutAskingTheServer) {
  const ScriptedHttpPeer server({});
  const Outcome outcome = Vardellctl(server.path(), Words(GetParam().words));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.output, QString());
  EXPECT_TRUE(outcome.error.contains(QString::fromUtf8(GetParam().says)))
      << qPrintable(outcome.error);
  EXPECT_TRUE(server.requests().empty());
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, VardellctlMisuse,
    testing::Values(
        Misuse{"limits|set|anna|org.game|Bedtime=9", "there is no key \"Bedtime\""},
        Misuse{"limits|set|anna|org.game|wd start=9", "there is no key \"wd start\""},
        Misuse{"limits|set|anna|org.game|Credit=ten", "\"Credit\" cannot be \"ten\""},
        Misuse{"limits|set|anna|org.game|Credit=12345", "but not 12345, which means"},
        Misuse{"limits|set|anna|org.game|Credit=-1", "whole minutes from 0 to 2147483647"},
        Misuse{"limits|set|anna|org.game|Credit=2147483648", "whole minutes from 0 to 2147483647"},
        Misuse{"limits|set|anna|org.game|Credit=12.5", "\"Credit\" cannot be \"12.5\""},
        Misuse{"limits|set|anna|org.game|WD start=1440", "from 0 to 1439, or a time from 00:00"},
        Misuse{"limits|set|anna|org.game|WE start=24:00", "\"WE start\" cannot be \"24:00\""},
        Misuse{"limits|set|anna|org.game|WD stop=1441", "from 0 to 1440"},
        Misuse{"limits|set|anna|org.game|WE stop=24:01", "\"WE stop\" cannot be \"24:01\""},
        Misuse{"limits|set|anna|org.game|WD start=8:5", "\"WD start\" cannot be \"8:5\""},
        Misuse{"limits|set|anna|org.game|Enabled=maybe", "it takes true or false"},
        Misuse{"limits|set|anna|org.game|AutoUpdateCoeff=59", "60 (hours) or 1 (minutes)"},
        Misuse{"limits|set|anna|org.game|NextAutoUpdate=soon", "local date and time"},
        Misuse{"limits|set|anna|org.game|WD start=1|WD start=2", "is given twice"},
        Misuse{"limits|set|anna|org.game|Enabled=true|WD stop=x", "\"WD stop\" cannot be"},
        Misuse{"limits|set|anna|org.game|Enabled", "is not KEY=VALUE"},
        Misuse{"limits|set|anna|org.game", "usage: vardellctl limits set"},
        Misuse{"limits|set||org.game|Enabled=1", "the user name is empty"},
        Misuse{"limits|show|anna|a\x1b[2J", "a character that it cannot have"},
        Misuse{"credit|set|anna|org.game|12345", "but not 12345, which means"},
        Misuse{"credit|set|anna|org.game|-5", "\"Credit\" cannot be \"-5\""},
        Misuse{"credit|set|anna|org.game|99999999999", "from 0 to 2147483647"},
        Misuse{"credit|set|anna|org.game", "usage: vardellctl credit set"},
        Misuse{"credit|show", "usage: vardellctl credit show"},
        Misuse{"ledger|--after|-1", "--after wants the number of a ledger row"},
        Misuse{"ledger|--reason|x", "--reason does not go with \"ledger\""},
        Misuse{"status|--frobnicate", "there is no option \"--frobnicate\""},
        Misuse{"status|--json|--json", "--json is given twice"},
        Misuse{"ledger|--after", "--after wants a value"},
        Misuse{"destroy|all", "there is no command \"destroy all\""}));

// ---- requests ----

TEST(Vardellctl, ALimitForANewIdentifierIsEnabledAndMustStillBeNew) {
  const ScriptedHttpPeer server({kNotFound, Answer(200, Limit(1))});
  const Outcome outcome =
      Vardellctl(server.path(), Words("limits|set|anna|org.game|WD start=08:00|WD stop=1200"));
  EXPECT_EQ(outcome.status, 0) << qPrintable(outcome.error);
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(FirstLine(requests[0]), "GET /v1/users/anna/limits/org.game HTTP/1.1");
  EXPECT_EQ(FirstLine(requests[1]), "PATCH /v1/users/anna/limits/org.game HTTP/1.1");
  EXPECT_TRUE(requests[1].contains("\r\nIf-None-Match: *\r\n"));
  EXPECT_FALSE(requests[1].contains("If-Match:"));
  const QJsonObject keys{{QStringLiteral("WD start"), 480},
                         {QStringLiteral("WD stop"), 1200},
                         {QStringLiteral("Enabled"), true}};
  EXPECT_EQ(BodyOf(requests[1]), (QJsonObject{{QStringLiteral("limits"), keys}}));
}

TEST(Vardellctl, AKnownLimitIsChangedFromTheRevisionThatWasRead) {
  const ScriptedHttpPeer server({Answer(200, Limit(7)), Answer(200, Limit(8))});
  const Outcome outcome = Vardellctl(server.path(), Words("limits|set|anna|org.game|Enabled=off"));
  EXPECT_EQ(outcome.status, 0);
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_TRUE(requests[1].contains("\r\nIf-Match: \"7\"\r\n"));
  const QJsonObject keys{{QStringLiteral("Enabled"), false}};
  EXPECT_EQ(BodyOf(requests[1]), (QJsonObject{{QStringLiteral("limits"), keys}}));
}

TEST(Vardellctl, AChangeThatSomebodyElseForestalledIsMadeAgainFromTheNewRevision) {
  const QByteArray mismatch = Answer(412, R"({"code":"revision-mismatch","title":"changed"})");
  const ScriptedHttpPeer server(
      {Answer(200, Limit(7)), mismatch, Answer(200, Limit(9)), Answer(200, Limit(10))});
  EXPECT_EQ(Vardellctl(server.path(), Words("limits|set|anna|org.game|Enabled=on")).status, 0);
  ASSERT_EQ(server.requests().size(), 4u);
  EXPECT_TRUE(server.requests()[3].contains("If-Match: \"9\""));
}

TEST(Vardellctl, AChangeThatIsAlwaysForestalledIsGivenUp) {
  const QByteArray mismatch = Answer(412, R"({"code":"revision-mismatch","title":"changed"})");
  std::vector<QByteArray> script;
  for (int i = 0; i < 20; ++i) {
    script.insert(script.end(), {Answer(200, Limit(7)), mismatch});
  }
  const ScriptedHttpPeer server(script);
  const Outcome outcome = Vardellctl(server.path(), Words("limits|set|anna|org.game|Enabled=on"));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.error, QStringLiteral("vardellctl: changed\n"));
  EXPECT_EQ(server.requests().size(), 10u);
}

struct Naming {
  const char* identifier;
  const char* target;
};

class VardellctlNaming : public testing::TestWithParam<Naming> {};

TEST_P(VardellctlNaming, OfIdentifiersInTargets) {
  const ScriptedHttpPeer server({Answer(200, Limit(1))});
  Vardellctl(server.path(), {QStringLiteral("limits"), QStringLiteral("show"),
                             QStringLiteral("anna"), QString::fromUtf8(GetParam().identifier)});
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(FirstLine(server.requests()[0]),
            QByteArray("GET /v1/users/anna/limits/") + GetParam().target + " HTTP/1.1");
}

INSTANTIATE_TEST_SUITE_P(Identifiers, VardellctlNaming,
                         testing::Values(Naming{"computer", "com.apple.loginwindow"},
                                         Naming{"a/b c?d#e%", "a%2Fb%20c%3Fd%23e%25"},
                                         Naming{"..", "%2E%2E"}, Naming{"spiël", "spi%C3%ABl"}));

TEST(Vardellctl, CreditIsSetUnderAnIdWithItsReason) {
  const ScriptedHttpPeer server({Answer(200, Limit(1, 45)), Answer(200, Limit(1, 45))});
  const Outcome outcome = Vardellctl(
      server.path(), Words("credit|set|anna|org.game|45|--reason|tidied up|--id|monday"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output,
            QStringLiteral("USER  IDENTIFIER  MINUTES\nanna  org.game         45\n"));
  Vardellctl(server.path(), Words("credit|set|anna|org.game|45"));
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(FirstLine(requests[0]), "PUT /v1/users/anna/limits/org.game/credit HTTP/1.1");
  EXPECT_EQ(BodyOf(requests[0]),
            (QJsonObject{{QStringLiteral("minutes"), 45},
                         {QStringLiteral("id"), QStringLiteral("monday")},
                         {QStringLiteral("reason"), QStringLiteral("tidied up")}}));
  EXPECT_EQ(BodyOf(requests[1])[QStringLiteral("id")].toString().size(), 36);
}

// ---- what is shown ----

TEST(Vardellctl, TheLedgerIsReadPageByPageInLocalTime) {
  const QByteArray first =
      R"({"rows":[{"id":1,"time":"2026-07-01T08:00:00Z","user":"anna","identifier":"org.game",)"
      R"("host":"","source":"admin","minutes":2,"credit":2,"claimed":null,"actor":"uid 0 [root]",)"
      R"("reason":"start"}]})";
  const QByteArray second =
      R"({"rows":[{"id":12,"time":"2026-12-01T08:00:00Z","user":"anna","identifier":"org.game",)"
      R"("host":"local","source":"report","minutes":-1,"credit":1,"claimed":1,"actor":"anna",)"
      R"("reason":""}]})";
  const ScriptedHttpPeer server(
      {Answer(200, first), Answer(200, second), Answer(200, R"({"rows":[]})")});
  const Outcome outcome = Vardellctl(server.path(), Words("ledger|anna|--after|0"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output.toStdString(),
            "ID  TIME                 USER  IDENTIFIER  SOURCE  MINUTES  CREDIT  CLAIMED  HOST   "
            "ACTOR         REASON\n"
            " 1  2026-07-01 10:00:00  anna  org.game    admin         2       2        -         "
            "uid 0 [root]  start\n"
            "12  2026-12-01 09:00:00  anna  org.game    report       -1       1        1  local  "
            "anna\n");
  ASSERT_EQ(server.requests().size(), 3u);
  EXPECT_EQ(FirstLine(server.requests()[1]),
            "GET /v1/ledger?after=1&user=anna&identifier=&limit=500 HTTP/1.1");
}

TEST(Vardellctl, LimitsOfAllUsersAreOneTable) {
  const ScriptedHttpPeer server({Answer(200, R"({"users":["anna","ben"]})"),
                                 Answer(200, "{\"limits\":[" + Limit(1) + "]}"),
                                 Answer(200, R"({"limits":[]})")});
  const Outcome outcome = Vardellctl(server.path(), Words("limits|show"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output.toStdString(),
            "USER  IDENTIFIER  CREDIT  ENABLED  WEEK DAYS       WEEK-ENDS  TOP-UP  QUOTA\n"
            "anna  org.game        30  yes      08:00 to 20:00  any time   none    none\n");
}

TEST(Vardellctl, NothingThatOthersWroteReachesTheTerminalAsACommand) {
  const QByteArray limit =
      R"({"user":"anna","identifier":"x\u001b]0;evil\u0007\u202e","credit":1,"limits":{}})";
  const ScriptedHttpPeer server({Answer(200, "{\"limits\":[" + limit + "]}")});
  const Outcome outcome = Vardellctl(server.path(), Words("credit|show|anna"));
  EXPECT_TRUE(outcome.output.contains(QString::fromUtf8("x\uFFFD]0;evil\uFFFD\uFFFD")));
  EXPECT_FALSE(outcome.output.contains(QChar(0x1b)));
}

TEST(Vardellctl, JsonIsWhatTheServerSaid) {
  const ScriptedHttpPeer server({Answer(200, Limit(3))});
  const Outcome outcome = Vardellctl(server.path(), Words("limits|show|anna|org.game|--json"));
  EXPECT_EQ(QJsonDocument::fromJson(outcome.output.toUtf8()), QJsonDocument::fromJson(Limit(3)));
}

TEST(Vardellctl, StatusNamesStoreAndAddress) {
  const ScriptedHttpPeer server({Answer(200, R"({"version":"0.1.0","store":"SQLite /x","address":)"
                                             R"("127.0.0.1:4","published":null,"agents":3,)"
                                             R"("started":"2026-01-01T00:00:00Z"})")});
  EXPECT_EQ(Vardellctl(server.path(), Words("status")).output.toStdString(),
            "Version:    0.1.0\nStore:      SQLite /x\nAddress:    127.0.0.1:4\n"
            "Published:  no\nAgents:     3\nStarted:    2026-01-01 01:00:00\n");
}

TEST(Vardellctl, HelpAndVersionNeedNoServer) {
  const QString nowhere = QStringLiteral("/nonexistent/socket");
  EXPECT_EQ(Vardellctl(nowhere, Words("--version")).status, 0);
  const Outcome help = Vardellctl(nowhere, Words("limits|--help"));
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.output.contains(QStringLiteral("limits set USER IDENTIFIER KEY=VALUE...")));
}

// ---- failures ----

struct Failure {
  const char* name;
  QByteArray answer;
  int status;
  const char* says;
};

class VardellctlFailure : public testing::TestWithParam<Failure> {};

TEST_P(VardellctlFailure, IsOneClearErrorAndAnExitStatus) {
  const ScriptedHttpPeer server({GetParam().answer});
  const Outcome outcome = Vardellctl(server.path(), Words("credit|set|anna|org.game|5|--id|k"));
  EXPECT_EQ(outcome.status, GetParam().status);
  EXPECT_EQ(outcome.output, QString());
  EXPECT_TRUE(outcome.error.contains(QString::fromUtf8(GetParam().says)))
      << qPrintable(outcome.error);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, VardellctlFailure,
    testing::Values(
        Failure{
            "Refused",
            Answer(
                409,
                R"({"code":"id-reused","title":"used before","field":"id","hint":"take another id"})"),
            1, "vardellctl: used before (id)\ntake another id\n"},
        Failure{"RefusedForWantOfALimit", kNotFound, 1,
                "No limit\nvardellctl limits set makes a limit first.\n"},
        Failure{"RefusedWithoutJson", Answer(503, "busy"), 1, "answered with status 503"},
        Failure{"HungUp", "", 3, "it hung up before its answer was complete"},
        Failure{"HungUpTellsHowToRepeat", "", 3, "--id k is safe to repeat"},
        Failure{"HungUpInTheHeader", "HTTP/1.1 200 OK\r\nConte", 3, "it hung up"},
        Failure{"HungUpInTheBody", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{", 3,
                "it hung up"},
        Failure{"NoHttp", "220 mail.example.org ESMTP\r\n\r\n", 1, "its answer makes no sense"},
        Failure{"TooLarge", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n", 1,
                "its answer makes no sense"},
        Failure{"NoJson", Answer(200, "{\"credit\":"), 1, "no JSON object"},
        Failure{"AnArray", Answer(200, "[]"), 1, "no JSON object"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(Vardellctl, AServerThatIsNotThereIsSaidWithWhatToDo) {
  const Outcome outcome = Vardellctl(QStringLiteral("/nonexistent/socket"), Words("status"));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_TRUE(outcome.error.contains(QStringLiteral("/nonexistent/socket: No such file")));
  EXPECT_TRUE(outcome.error.contains(QStringLiteral("systemctl start vardell-server")));
}

TEST(Vardellctl, ALedgerThatDoesNotGoOnEndsTheReading) {
  const QByteArray page = Answer(200, R"({"rows":[{"id":5}]})");
  const ScriptedHttpPeer server({page, page, page});
  EXPECT_EQ(Vardellctl(server.path(), Words("ledger")).status, 1);
  EXPECT_EQ(server.requests().size(), 2u);
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
