#include "server/Metrics.h"

#include <QRegularExpression>
#include <map>
#include <set>

#include "tests/server/ControlApiFixture.h"

namespace vardell::server {
namespace {

struct Page {
  std::map<QString, QString> types;   // by family
  std::map<QString, double> samples;  // by name and labels, as written
  QString problem;                    // empty: all of it can be read
};

// Strictly: HELP, TYPE and then the samples of each family, once; escaped labels; numbers.
Page Read(const QByteArray& text) {
  static const QRegularExpression kHelp(QStringLiteral("^# HELP ([a-z_]+) (\\S[^\\\\]*)$"));
  static const QRegularExpression kType(QStringLiteral("^# TYPE ([a-z_]+) (counter|gauge)$"));
  static const QRegularExpression kSample(
      QStringLiteral("^([a-z_]+)(\\{[a-z_]+=\"(?:[^\"\\\\]|\\\\[\"\\\\n])*\""
                     "(?:,[a-z_]+=\"(?:[^\"\\\\]|\\\\[\"\\\\n])*\")*\\})? "
                     "([0-9]+(?:\\.[0-9]+)?)$"));
  Page page;
  if (!text.endsWith('\n')) page.problem = QStringLiteral("no line feed at the end");
  QStringList lines = QString::fromUtf8(text).split(u'\n');
  lines.removeLast();
  QString family;
  bool isTyped = false;
  for (const QString& line : lines) {
    const auto help = kHelp.match(line);
    const auto type = kType.match(line);
    const auto sample = kSample.match(line);
    bool isRight = false;
    if (help.hasMatch()) {
      family = help.captured(1);
      isTyped = false;
      isRight = !page.types.contains(family);
    } else if (type.hasMatch()) {
      isRight = type.captured(1) == family && !isTyped;
      isTyped = true;
      page.types[family] = type.captured(2);
      isRight = isRight && (type.captured(2) == QLatin1String("counter")) ==
                               family.endsWith(QLatin1String("_total"));
    } else if (sample.hasMatch()) {
      const QString name = sample.captured(1) + sample.captured(2);
      isRight = isTyped && sample.captured(1) == family && !page.samples.contains(name);
      page.samples[name] = sample.captured(3).toDouble();
    }
    if (!isRight) page.problem = line;
  }
  return page;
}

TEST(Metrics, ThePageIsWrittenAsItMustBeAndEachValueStandsUnderItsName) {
  Metrics metrics;
  for (const int kind : {1, 1, 3, 6, 7, 2, 200}) {
    metrics.CountRequest(static_cast<std::uint8_t>(kind));
  }
  metrics.agents.Count(ConnectionEnd::Malformed);
  metrics.agents.Count(ConnectionEnd::ByPeer);
  metrics.kills.Count(ConnectionEnd::UnknownUser);
  metrics.CountKill(KillResult::Killed);
  metrics.CountKill(KillResult::NotTheirs);
  metrics.killsWithoutPid = 9;
  for (const int status : {200, 201, 404, 503}) metrics.CountAnswer(status);
  ServerStatus status;
  status.version = QStringLiteral("1\"2\\3\n4");
  status.agents = 3;
  status.killConnections = 1;
  status.started = QDateTime::fromMSecsSinceEpoch(1'700'000'000'250);
  HouseholdFacts household;
  household.writing = {.isAway = true,
                       .problem = QStringLiteral("secret"),
                       .since = {},
                       .waiting = 4,
                       .spooled = 5,
                       .batches = 6,
                       .changes = 7,
                       .failures = 8,
                       .seconds = 1.5};
  household.ledger[QStringLiteral("report")] = {.rows = 11, .added = 0, .taken = 12, .used = 13};
  const QByteArray text = MetricsText(metrics, status, household);
  const Page page = Read(text);
  EXPECT_EQ(page.problem, QString());
  const std::map<const char*, double> kExpected = {
      {R"(vardell_build_info{version="1\"2\\3\n4"})", 1},
      {"vardell_start_time_seconds", 1'700'000'000.25},
      {R"(vardell_requests_total{kind="fetch"})", 2},
      {R"(vardell_requests_total{kind="start"})", 1},
      {R"(vardell_requests_total{kind="report"})", 1},
      {R"(vardell_requests_total{kind="kill"})", 1},
      {R"(vardell_connections_open{listener="agents"})", 3},
      {R"(vardell_connections_accepted_total{listener="agents"})", 5},
      {R"(vardell_connections_accepted_total{listener="kill"})", 2},
      {R"(vardell_connections_closed_total{listener="agents",reason="malformed"})", 1},
      {R"(vardell_connections_closed_total{listener="kill",reason="unknown_user"})", 1},
      {R"(vardell_kill_requests_total{verdict="killed"})", 1},
      {R"(vardell_kill_requests_total{verdict="not_theirs"})", 1},
      {R"(vardell_kill_requests_total{verdict="no_pid"})", 9},
      {R"(vardell_control_requests_total{status="2xx"})", 2},
      {R"(vardell_control_requests_total{status="5xx"})", 1},
      {R"(vardell_ledger_rows_total{source="report"})", 11},
      {R"(vardell_ledger_taken_minutes_total{source="report"})", 12},
      {R"(vardell_ledger_used_minutes_total{source="report"})", 13},
      {"vardell_store_up", 0},
      {"vardell_store_changes_waiting", 4},
      {"vardell_store_changes_spooled", 5},
      {"vardell_store_batches_total", 6},
      {"vardell_store_changes_total", 7},
      {"vardell_store_failures_total", 8},
      {"vardell_store_seconds_total", 1.5},
  };
  for (const auto& [name, value] : kExpected) {
    const auto found = page.samples.find(QString::fromUtf8(name));
    ASSERT_NE(found, page.samples.end()) << name << "\n" << text.constData();
    EXPECT_EQ(found->second, value) << name;
  }
  EXPECT_FALSE(text.contains("secret"));
}

TEST_F(ControlApi, MetricsAreForEverybodyAndNameNobody) {
  Launch(0);
  Report(30, 29);
  for (const auto& [role, name] : {std::pair(Role::Admin, "root"), {Role::Read, "ben"}}) {
    Be(role, name);
    const ControlAnswer answer = Ask("GET", "/v1/metrics");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.contentType, "text/plain; version=0.0.4; charset=utf-8");
    const Page page = Read(answer.body);
    EXPECT_EQ(page.problem, QString());
    EXPECT_EQ(page.samples.at(QStringLiteral("vardell_limits")), 1);
    EXPECT_EQ(page.samples.at(QStringLiteral("vardell_store_up")), 1);
    EXPECT_FALSE(answer.body.contains("anna") || answer.body.contains("org.example.game"));
  }
  EXPECT_EQ(Ask("GET", "/v1/metrics?user=anna").status, 400);
}

}  // namespace
}  // namespace vardell::server
