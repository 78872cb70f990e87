// The hours of a limit: how people write them, what the Server gets of it, and how it is shown.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QTemporaryDir>

#include "control/ScheduleText.h"
#include "tests/control/RunVardellctl.h"

namespace vardell::test {
namespace {

using control::ParsedSchedule;
using control::ParseScheduleFile;
using control::ParseScheduleLines;
using control::ScheduleTable;

constexpr char kHead[] = "# DAYS";

// The table without its heading, each line with single blanks, divided by '|'.
std::string Shown(const QJsonObject& schedule) {
  QStringList lines = ScheduleTable(schedule).trimmed().split(u'\n');
  EXPECT_TRUE(lines.takeFirst().startsWith(QLatin1String(kHead)));
  for (QString& line : lines) line = line.simplified();
  return lines.join(u'|').toStdString();
}

TEST(Schedule, WhatIsWrittenIsShownAndCanBeWrittenAgain) {
  const struct {
    const char* lines;
    const char* shown;
    const char* notice;
  } rows[] = {
      {"monday-friday 15:00-20:00|saturday 09:00-23:00|sunday closed",
       "monday-friday 15:00-20:00|saturday 09:00-23:00|sunday closed", ""},
      {"daily all-day", "daily all-day", ""},
      {"Mon 8-9|  TUES,sun\t7:05-8:00 ",
       "monday 08:00-09:00|tuesday 07:05-08:00|"
       "wednesday-saturday closed|sunday 07:05-08:00",
       "closed, since nothing was said of them: wednesday-saturday"},
      {"weekends 20:00-01:00 9-12|weekdays closed",
       "monday-friday closed|saturday-sunday 09:00-12:00 20:00-01:00", ""},
      {"sat-mon 00:00-24:00|tue-fri 22:00-0:00",
       "monday all-day|tuesday-friday 22:00-24:00|saturday-sunday all-day", ""},
      {"# a comment||daily closed|holiday Summer break 2027-07-01..2027-08-31 9-12 20-1|"
       "holiday Eve 2027-12-24 all-day",
       "daily closed|holiday Summer break 2027-07-01..2027-08-31 09:00-12:00 20:00-01:00|"
       "holiday Eve 2027-12-24 all-day",
       ""},
      {"daily closed|holiday \"2027-01-01 \\\"or\\\" so\" 2027-01-02 8-9",
       "daily closed|holiday \"2027-01-01 \\\"or\\\" so\" 2027-01-02 08:00-09:00", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    const ParsedSchedule parsed = ParseScheduleLines(Words(row.lines));
    EXPECT_EQ(parsed.problem.toStdString(), "");
    EXPECT_EQ(parsed.notice.toStdString(), row.notice);
    EXPECT_EQ(Shown(parsed.schedule), row.shown);
    const ParsedSchedule again = ParseScheduleFile(ScheduleTable(parsed.schedule).toUtf8());
    EXPECT_EQ(again.schedule, parsed.schedule) << qPrintable(again.problem);
    const QByteArray json = QJsonDocument(parsed.schedule).toJson();
    EXPECT_EQ(ParseScheduleFile(json).schedule, parsed.schedule);
    EXPECT_EQ(ParseScheduleFile("{\"schedule\":" + json + "}").schedule, parsed.schedule);
  }
}

TEST(Schedule, AProblemSaysWhatToWrite) {
  const struct {
    const char* lines;
    const char* says;
  } rows[] = {
      {"mondy 15-20", "begins neither with days"},
      {"monday-friday-sunday 15-20", "begins neither with days"},
      {"mo 15-20", "begins neither with days"},
      {"monday", "write \"monday 15:00-20:00\", \"monday all-day\" or \"monday closed\""},
      {"daily 8-25", "\"8-25\" is no time"},
      {"daily 24:00-1:00", "is no time"},
      {"daily 8:60-9:00", "is no time"},
      {"daily closed 8-9", "\"closed\" is no time"},
      {"daily 8-8", "a whole day is \"all-day\""},
      {"daily 11-13 9-12", "9-12 and 11-13 of \"daily\" overlap"},
      {"daily 20-1 23-24", "overlap"},
      {"daily 1-2 3-4 5-6 7-8 9-10 11-12 13-14 15-16 17-18", "more than 8"},
      {"weekdays 8-9|friday 15-20", "friday is there twice"},
      {"holiday Eve 2027-12-24 8-9", "\"daily all-day\" allows them all"},
      {"daily closed|holiday 2027-12-24 8-9", "needs a name"},
      {"daily closed|holiday Eve 24.12.2027 8-9", "has no date"},
      {"daily closed|holiday Eve 2027-02-29 8-9", "there is no day 2027-02-29"},
      {"daily closed|holiday Eve 2027-02-28..2027-02-27 8-9", "is before"},
      {"daily closed|holiday Eve 2027-12-24", "\"holiday Eve 2027-12-24\" has no hours"},
      {"", "nothing is said of the days"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lines);
    const ParsedSchedule parsed = ParseScheduleLines(Words(row.lines));
    EXPECT_TRUE(parsed.problem.contains(QLatin1String(row.says))) << qPrintable(parsed.problem);
    EXPECT_TRUE(parsed.schedule.isEmpty());
  }
  EXPECT_TRUE(ParseScheduleFile("{\"days\":").problem.contains(u"this is not JSON"_s));
  EXPECT_TRUE(ParseScheduleFile(R"({"schedule":null})").problem.contains(u"schedule clear"_s));
}

QByteArray LimitWith(const QByteArray& schedule, const QByteArray& identifier = "org.game") {
  return R"({"user":"root","identifier":")" + identifier +
         R"(","credit":0,"revision":7,"limits":{"Enabled":true,"WD Curfew Enabled":true},)"
         R"("options":{"schedule":)" +
         schedule + "}}";
}

TEST(Schedule, IsSetFromWordsAFileAndStandardInputAndClearedAgain) {
  const QTemporaryDir folder;
  const QString file = folder.filePath(u"hours"_s);
  const QByteArray json =
      QJsonDocument(ParseScheduleLines({u"daily 15-20"_s}).schedule).toJson(QJsonDocument::Compact);
  QFile written(file);
  ASSERT_TRUE(written.open(QIODevice::WriteOnly));
  written.write("# mine\ndaily 15:00-20:00\n");
  written.close();
  const QByteArray body = R"({"options":{"schedule":)" + json + "}}";
  for (const QString& words : {u"daily 15:00-20:00"_s, file}) {
    const auto [status, output, error, requests] =
        Vardellctl(("schedule|set|root|org.game|" + words.toUtf8()).constData(),
                   {Answer(200, LimitWith("null")), Answer(200, LimitWith(json))});
    EXPECT_EQ(status, 0) << qPrintable(error);
    EXPECT_EQ(output,
              u"root, org.game: changed.\nKEY       BEFORE  NOW\n"
              "Schedule  none    daily 15:00-20:00\n"_s);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(BodyOf(requests[1]), QJsonDocument::fromJson(body).object());
    EXPECT_TRUE(requests[1].contains("\r\nIf-Match: \"7\"\r\n"));
  }
  const auto cleared = Vardellctl("schedule|clear|root|org.game",
                                  {Answer(200, LimitWith(json)), Answer(200, LimitWith("null"))});
  EXPECT_EQ(cleared.status, 0);
  EXPECT_EQ(BodyOf(cleared.requests.at(1)),
            QJsonDocument::fromJson(R"({"options":{"schedule":null}})").object());

  const auto missing = Vardellctl("schedule|set|root|org.game|no-such-file", {});
  EXPECT_EQ(missing.status, 1);
  EXPECT_TRUE(missing.error.contains(u"monday-friday 15:00-20:00"_s)) << qPrintable(missing.error);
  EXPECT_EQ(Vardellctl("schedule|set|root|org.game|daily", {}).status, 2);
  EXPECT_EQ(Vardellctl("schedule|set|root|home|daily closed", {}).status, 2);
}

TEST(Schedule, OfTheComputerIsShownInPlaceOfItsHours) {
  const QByteArray json =
      QJsonDocument(ParseScheduleLines({u"sunday 9-10"_s}).schedule).toJson(QJsonDocument::Compact);
  const QByteArray limit = LimitWith(json, "com.apple.loginwindow");
  EXPECT_EQ(Vardellctl("schedule|show|root|computer", {Answer(200, limit)}).output.toStdString(),
            "# root, computer may be used at these times; a holiday counts instead of its days.\n"
            "# DAYS           HOURS\n"
            "monday-saturday  closed\n"
            "sunday           09:00-10:00\n");
  EXPECT_EQ(Vardellctl("schedule|show|root|computer", {Answer(200, LimitWith("null"))}).output,
            u"# root, computer has no schedule.\n"_s);
  const Outcome json2 = Vardellctl("schedule|show|root|computer|--json", {Answer(200, limit)});
  EXPECT_EQ(ParseScheduleFile(json2.output.toUtf8()).schedule,
            QJsonDocument::fromJson(json).object());
  const Outcome listed =
      Vardellctl("limits|show|root", {Answer(200, "{\"limits\":[" + limit + "]}")});
  EXPECT_TRUE(listed.output.contains(u"yes      by schedule  by schedule  none"_s))
      << qPrintable(listed.output);
  const Outcome set =
      Vardellctl("schedule|set|root|computer|sunday 9-10", {Answer(404, "{}"), Answer(201, limit)});
  EXPECT_EQ(set.error.toStdString(),
            "vardellctl: root, computer has no credit yet. Give some: vardellctl credit add root "
            "computer 60, or let the hours alone count: vardellctl limits set root computer "
            "Unlimited=yes\n"
            "root, computer has a schedule, so \"WD start\", \"WE stop\" and so on do not count\n"
            "closed, since nothing was said of them: monday-saturday\n");
}

}  // namespace
}  // namespace vardell::test
