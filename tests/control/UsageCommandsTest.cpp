// usage, against a scripted Server, whose days are those of its own zone.
#include <gtest/gtest.h>

#include <QTimeZone>

#include "control/UsageChart.h"
#include "control/UsageCommands.h"
#include "tests/control/RunVardellctl.h"

namespace vardell::test {
namespace {

using control::BarChart;
using control::BarsOverTime;
using control::UsageDays;

QByteArray Text(const QDate& day) {
  return day.toString(Qt::ISODate).toLatin1();
}

// The day in the farthest east, which is never the day in the farthest west.
QDate Today() {
  return control::DayIn(u"Pacific/Kiritimati"_s, QDateTime::currentDateTimeUtc());
}

constexpr char kStatus[] = R"({"zone":"Pacific/Kiritimati"})";

QByteArray Days(const std::vector<std::pair<QDate, int>>& days) {
  QByteArray json;
  for (const auto& [day, minutes] : days) {
    json += (json.isEmpty() ? "\"" : ",\"") + Text(day) + "\":" + QByteArray::number(minutes);
  }
  return "{" + json + "}";
}

// With the day that it is before, and after, in case that midnight came between.
Outcome Usage(const char* words, const std::function<QByteArray(const QDate& today)>& answer,
              QDate* today) {
  Outcome outcome;
  do {
    *today = Today();
    outcome = Vardellctl(words, {Answer(200, kStatus), Answer(200, answer(*today))});
  } while (*today != Today());
  return outcome;
}

TEST(UsageCommands, AWeekIsEightBarsThatEndWithTheServersToday) {
  QDate today;
  const auto [status, output, error, requests] = Usage(
      "usage|anna|org.game",
      [](const QDate& day) {
        return "{\"days\":" +
               Days({{day, 5},
                     {day.addDays(-7), 61},
                     {day.addDays(-8), 1000},
                     {day.addDays(1), 9}}) +
               "}";
      },
      &today);
  EXPECT_EQ(status, 0) << qPrintable(error);
  const QStringList lines = output.split(u'\n');
  ASSERT_EQ(lines.size(), 11) << qPrintable(output);
  const auto label = [&](int ago) {
    return QLocale::c().toString(today.addDays(-ago), u"ddd yyyy-MM-dd"_s);
  };
  EXPECT_EQ(lines[0], u"anna, org.game, the last 8 days:"_s);
  EXPECT_EQ(lines[1], label(7) + u"  1:01  "_s + QString(58, u'█'));
  EXPECT_EQ(lines[2], label(6));
  EXPECT_EQ(lines[8], label(0) + u"  0:05  ████▊"_s);
  EXPECT_EQ(lines[9], u"Total: 1 hour 6 minutes"_s);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(FirstLine(requests[1]),
            "GET /v1/users/anna/limits/org.game/usage?from=" + Text(today.addDays(-7)) +
                "&to=" + Text(today) + " HTTP/1.1");
}

TEST(UsageCommands, AUsersIdentifiersAreRankedBehindTheSession) {
  QDate today;
  const auto answer = [](const QDate& day) {
    return "{\"usage\":[{\"identifier\":\"org.game\",\"days\":" + Days({{day, 30}}) +
           "},{\"identifier\":\"org,\\\"a\\u001b\",\"days\":" + Days({{day.addDays(-30), 60}}) +
           "},{\"identifier\":\"old\",\"days\":" + Days({{day.addDays(-31), 60}}) +
           "},{\"identifier\":\"com.apple.loginwindow\",\"days\":" + Days({{day, 20}}) + "}]}";
  };
  const QString shown = Usage("usage|anna|--period|month", answer, &today).output;
  EXPECT_EQ(shown.left(shown.indexOf(u'█')), u"anna, the last 31 days:\ncomputer  0:20  "_s);
  EXPECT_TRUE(shown.contains(u"\norg,\"a\uFFFD   1:00  █"_s)) << qPrintable(shown);
  EXPECT_LT(shown.indexOf(u"org,"_s), shown.indexOf(u"org.game"_s));
  EXPECT_FALSE(shown.contains(u"old"_s));
  EXPECT_TRUE(shown.endsWith(u"\nAt the computer: 20 minutes\n"_s)) << qPrintable(shown);

  const auto formula = [](const QDate& day) {
    return "{\"usage\":[{\"identifier\":\"=cmd|' /C calc'!A0\",\"days\":" + Days({{day, 1}}) +
           "}]}";
  };
  EXPECT_EQ(Usage("usage|@anna|--csv", formula, &today).output.toUtf8(),
            "user,identifier,day,minutes\r\n'@anna,'=cmd|' /C calc'!A0," + Text(today) + ",1\r\n");

  const QString csv = Usage("usage|anna|--period|month|--csv", answer, &today).output;
  EXPECT_EQ(csv.toUtf8(), "user,identifier,day,minutes\r\nanna,computer," + Text(today) +
                              ",20\r\nanna,\"org,\"\"a\uFFFD\"," + Text(today.addDays(-30)) +
                              ",60\r\nanna,org.game," + Text(today) + ",30\r\n");

  const QString json = Usage("usage|anna|--period|today|--json", answer, &today).output;
  const QJsonObject object = QJsonDocument::fromJson(json.toUtf8()).object();
  EXPECT_EQ(object[u"today"_s].toString().toLatin1(), Text(today));
  EXPECT_EQ(object[u"usage"_s][0][u"identifier"_s], u"com.apple.loginwindow"_s);
  EXPECT_EQ(object[u"usage"_s][0][u"total"_s], 20);
  EXPECT_EQ(object[u"usage"_s][1][u"days"_s],
            (QJsonObject{{QString::fromLatin1(Text(today)), 30}}));
}

TEST(UsageCommands, WhereCharactersAreNotUnicodeBarsAreOfSigns) {
  const ScriptedHttpPeer server(
      {Answer(200, kStatus), Answer(200, R"({"days":{"2026-01-05":7}})")});
  const Outcome outcome =
      RunAt(server.path(), Words("usage|anna|org.game|--period|all"), {{u"LC_ALL"_s, u"C"_s}});
  EXPECT_TRUE(outcome.output.contains(u"  0:07  ##########"_s)) << qPrintable(outcome.output);
  EXPECT_FALSE(outcome.output.contains(u'█'));
  EXPECT_EQ(outcome.error, QString());
}

TEST(UsageCommands, NoUseIsSaid) {
  EXPECT_EQ(Vardellctl("usage|anna", {Answer(200, kStatus), Answer(200, R"({"usage":[]})")}).output,
            u"anna, the last 8 days:\nNothing was used.\n"_s);
  EXPECT_EQ(Vardellctl("usage|anna|home|--period|all",
                       {Answer(200, kStatus), Answer(200, R"({"days":{}})")})
                .output,
            u"anna, home, all days:\nTotal: 0 minute\n"_s);
  EXPECT_EQ(Vardellctl("usage|anna|--csv|--json", {}).status, 2);
}

TEST(UsageCommands, TheDayIsTheServers) {
  const struct {
    const char* zone;
    const char* now;
    const char* day;
  } rows[] = {
      {"Europe/Madrid", "2026-12-31T22:59:59Z", "2026-12-31"},
      {"Europe/Madrid", "2026-12-31T23:00:00Z", "2027-01-01"},
      {"America/New_York", "2027-01-01T04:59:59Z", "2026-12-31"},
      {"+05:45", "2026-02-28T18:15:00Z", "2026-03-01"},
      {"-03:00", "2026-03-01T02:59:00Z", "2026-02-28"},
  };
  for (const auto& row : rows) {
    const auto now = QDateTime::fromString(QString::fromLatin1(row.now), Qt::ISODate);
    EXPECT_EQ(Text(control::DayIn(QString::fromLatin1(row.zone), now)), row.day) << row.zone;
  }
}

TEST(UsageChart, LongHistoriesAreShownByMonthAndThenByYear) {
  const QDate first(2024, 1, 31);
  const struct {
    const char* what;
    QDate last;
    std::size_t bars;
    const char* label;  // of the second
    qint64 minutes;
  } rows[] = {
      {"62 days", first.addDays(61), 62, "Thu 2024-02-01", 0},
      {"63 days", first.addDays(62), 4, "2024-02", 12},
      {"62 months", QDate(2029, 2, 1), 62, "2024-02", 12},
      {"63 months", QDate(2029, 3, 1), 6, "2025", 100},
  };
  const UsageDays days{{first, 1},
                       {QDate(2024, 2, 2), 4},
                       {QDate(2024, 2, 29), 8},
                       {QDate(2025, 5, 5), 100},
                       {QDate(2040, 1, 1), 1000}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const auto bars = BarsOverTime(days, first, row.last);
    ASSERT_EQ(bars.size(), row.bars);
    EXPECT_EQ(bars[1].label, QString::fromLatin1(row.label));
    EXPECT_EQ(bars[1].minutes, row.minutes);
  }
}

TEST(UsageChart, BarsFitIntoTheWidthBehindLabelsThatAreCut) {
  const QString text = BarChart({{QString(60, u'x'), 60}, {u"y"_s, 0}}, 40, false);
  EXPECT_EQ(text, QString(17, u'x') + u"...  1:00  ############\ny\n"_s);
}

}  // namespace
}  // namespace vardell::test
