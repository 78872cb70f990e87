#include "server/Metrics.h"

#include <QRegularExpression>

#include "tests/server/ControlApiFixture.h"

namespace vardell::server {
namespace {

// HELP, TYPE and then the samples of each family, each of them once; counters alone end in _total.
void ExpectWellFormed(const QByteArray& page) {
  static const QRegularExpression kPage(QStringLiteral(
      R"x(\A(?:# HELP ([a-z_]+) \S[^\\\n]*\n# TYPE \1(?:(?<=_total) counter|(?<!_total) gauge)\n)x"
      R"x((?:\1(?:\{[a-z_]+="(?:[^"\\\n]|\\["\\n])*"(?:,[a-z_]+="(?:[^"\\\n]|\\["\\n])*")*\})? )x"
      R"x([0-9]+(?:\.[0-9]+)?\n)+)+\z)x"));
  EXPECT_TRUE(kPage.match(QString::fromUtf8(page)).hasMatch()) << page.constData();
  QStringList names;
  for (const QByteArray& line : page.split('\n')) {
    names.append(QString::fromUtf8(line.left(line.lastIndexOf(' '))));
  }
  EXPECT_EQ(names.removeDuplicates(), 0) << page.constData();
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
  ExpectWellFormed(text);
  const char* const samples[] = {
      R"(vardell_build_info{version="1\"2\\3\n4"} 1)",
      "vardell_start_time_seconds 1700000000.250000",
      R"(vardell_requests_total{kind="fetch"} 2)",
      R"(vardell_requests_total{kind="start"} 1)",
      R"(vardell_requests_total{kind="report"} 1)",
      R"(vardell_requests_total{kind="kill"} 1)",
      R"(vardell_connections_open{listener="agents"} 3)",
      R"(vardell_connections_accepted_total{listener="agents"} 5)",
      R"(vardell_connections_accepted_total{listener="kill"} 2)",
      R"(vardell_connections_closed_total{listener="agents",reason="malformed"} 1)",
      R"(vardell_connections_closed_total{listener="kill",reason="unknown_user"} 1)",
      R"(vardell_kill_requests_total{verdict="killed"} 1)",
      R"(vardell_kill_requests_total{verdict="not_theirs"} 1)",
      R"(vardell_kill_requests_total{verdict="no_pid"} 9)",
      R"(vardell_control_requests_total{status="2xx"} 2)",
      R"(vardell_control_requests_total{status="5xx"} 1)",
      R"(vardell_ledger_rows_total{source="report"} 11)",
      R"(vardell_ledger_taken_minutes_total{source="report"} 12)",
      R"(vardell_ledger_used_minutes_total{source="report"} 13)",
      "vardell_store_up 0",
      "vardell_store_changes_waiting 4",
      "vardell_store_changes_spooled 5",
      "vardell_store_batches_total 6",
      "vardell_store_changes_total 7",
      "vardell_store_failures_total 8",
      "vardell_store_seconds_total 1.500000",
  };
  for (const QByteArray sample : samples) {
    EXPECT_TRUE(text.contains('\n' + sample + '\n')) << sample.data() << "\n" << text.data();
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
    ExpectWellFormed(answer.body);
    EXPECT_TRUE(answer.body.contains("\nvardell_limits 1\n"));
    EXPECT_TRUE(answer.body.contains("\nvardell_store_up 1\n"));
    EXPECT_FALSE(answer.body.contains("anna") || answer.body.contains("org.example.game"));
  }
  EXPECT_EQ(Ask("GET", "/v1/metrics?user=anna").status, 400);
}

}  // namespace
}  // namespace vardell::server
