// limits and credit, against a scripted Server: what is asked, and what is said of the answer.
#include <gtest/gtest.h>

#include "control/TextTable.h"
#include "tests/control/RunVardellctl.h"

namespace vardell::test {
namespace {

QByteArray LimitOf(const char* identifier, int credit, const QByteArray& keys,
                   const QByteArray& user = "anna") {
  return "{\"user\":\"" + user + "\",\"revision\":7,\"identifier\":\"" + identifier +
         "\",\"credit\":" + QByteArray::number(credit) + ",\"limits\":{" + keys + "}}";
}

QByteArray Game(int credit, const QByteArray& keys) {
  return LimitOf("org.game", credit, keys);
}

constexpr char kOpen[] =
    R"("Enabled":true,"Report Credit":false,"WD Curfew Enabled":false,"WD start":0,"WD stop":1439,)"
    R"("WE Curfew Enabled":false,"WE start":0,"WE stop":1439,"AutoUpdateValue":0,)"
    R"("AutoUpdateCoeff":1,"WE Value":0,"WE Coeff":0,"NextAutoUpdate":0,"DQ Enabled":false,)"
    R"("DQ Value":0)";
// The same, but from 8 to 20 on week days.
const QByteArray kHours =
    QByteArray(kOpen) + R"(,"WD start":480,"WD stop":1200,"WD Curfew Enabled":true)";

// Of a limit with top-ups.
QByteArray Rolling(const QByteArray& rollOver, const QByteArray& cap) {
  QByteArray limit = Game(5, QByteArray(kOpen) + R"(,"AutoUpdateValue":60,"NextAutoUpdate":1)");
  limit.insert(1, R"("options":{"rollOver":)" + rollOver + R"(,"rollOverCap":)" + cap + "},");
  return limit;
}

QByteArray Counted(const QByteArray& unlimited, const QByteArray& parallel, const QByteArray& scope,
                   int topUp) {
  QByteArray limit =
      Game(5, QByteArray(kOpen) + ",\"AutoUpdateValue\":" + QByteArray::number(topUp));
  limit.insert(1, R"("options":{"unlimited":)" + unlimited + R"(,"parallel":")" + parallel +
                      R"(","scope":")" + scope + R"("},)");
  return limit;
}

TEST(LimitsCommands, AChangeIsSaidKeyByKey) {
  const struct {
    const char* what;
    const char* words;
    std::vector<QByteArray> answers;
    const char* body;
    const char* output = nullptr;  // any, as is the notice
    const char* notice = "";
    const char* target = "anna/limits/org.game";
  } rows[] = {
      {"keys and credit",
       "limits|set|anna|org.game|WD start=08:00|Credit=30",
       {Answer(200, Game(5, kOpen)), Answer(200, Game(30, kHours))},
       R"({"limits":{"WD start":480,"Credit":30}})",
       "anna, org.game: changed.\n"
       "KEY                BEFORE  NOW\n"
       "Credit             5 min   30 min\n"
       "WD Curfew Enabled  no      yes\n"
       "WD start           00:00   08:00\n"
       "WD stop            23:59   20:00\n"},
      {"the same values again",
       "limits|set|anna|org.game|WD start=8:00",
       {Answer(200, Game(0, kHours)), Answer(200, Game(0, kHours))},
       R"({"limits":{"WD start":480}})",
       "anna, org.game: nothing changed.\n"},
      {"new, and spent at once",
       "limits|set|root|computer|WD stop=20:00",
       {kNotFound, Answer(201, LimitOf("com.apple.loginwindow", 0,
                                       QByteArray(kOpen) + ",\"WD stop\":1200", "root"))},
       R"({"limits":{"WD stop":1200,"Enabled":true}})",
       "root, computer: a new limit.\n"
       "KEY      BEFORE  NOW\n"
       "WD stop  23:59   20:00\n"
       "Agents learn of it at the next login: who is logged in now goes on without it.\n",
       "vardellctl: root, computer has no credit yet. Give some: vardellctl credit add root "
       "computer 60\n"
       "the hours of a week day do not hold yet: \"WD Curfew Enabled=true\" does that\n",
       "root/limits/com.apple.loginwindow"},
      {"of nobody here, and of no application that is installed",
       "limits|set|no|body\u202e|Credit=5",
       {kNotFound, Answer(201, LimitOf("body\u202e", 5, kOpen, "no"))},
       R"({"limits":{"Credit":5,"Enabled":true}})",
       "no, body\uFFFD: a new limit.\n"
       "KEY     BEFORE  NOW\n"
       "Credit  0 min   5 min\n"
       "Agents learn of it when the application is started next: one that is running now goes on "
       "without it.\n",
       "vardellctl: no account of this machine has the name \"no\"\n"
       "no application of this machine has the identifier \"body\uFFFD\"; see "
       "vardellctl apps list\n",
       "no/limits/body%E2%80%AE"},
      {"a home folder has no credit and is not enabled",
       "limits|set|root|home|DQ Value=9",
       {kNotFound,
        Answer(201, LimitOf("com.brenwick.globalSettings", 0, R"("DQ Value":9)", "root"))},
       R"({"limits":{"DQ Value":9}})",
       "root, home: a new limit.\n"
       "KEY         BEFORE  NOW\n"
       "DQ Enabled  no      -\n"
       "DQ Value    0 MiB   9 MiB\n"
       "Agents learn of it at the next login: who is logged in now goes on without it.\n",
       "vardellctl: root, home has a quota that does not hold yet: \"DQ Enabled=true\" does "
       "that\n",
       "root/limits/com.brenwick.globalSettings"},
      {"enabled again, at hours that allow nothing",
       "limits|set|anna|org.game|Enabled=yes|WD start=20:00",
       {Answer(200, Game(5, QByteArray(kOpen) + ",\"Enabled\":false")),
        Answer(200, Game(5, kHours + ",\"WD start\":1200"))},
       R"({"limits":{"Enabled":true,"WD start":1200}})",
       "anna, org.game: changed.\n"
       "KEY                BEFORE  NOW\n"
       "Enabled            no      yes\n"
       "WD Curfew Enabled  no      yes\n"
       "WD start           00:00   20:00\n"
       "WD stop            23:59   20:00\n"
       "Agents learn of it when the application is started next: one that is running now goes on "
       "without it.\n",
       "vardellctl: anna, org.game may not run at any time of a week day: \"WD stop\" is not after "
       "\"WD start\"\n"},
      {"a preset, one key otherwise",
       "limits|preset|anna|org.game|school-day|WD stop=18:00",
       {Answer(200, Game(0, kOpen)), Answer(200, Game(0, kOpen))},
       R"({"limits":{"WD Curfew Enabled":true,"WD start":900,"WD stop":1080}})"},
      {"a top-up that rolls over, with a key",
       "limits|set|anna|org.game|Roll Over=on|Roll Over Cap=180|AutoUpdateValue=60",
       {Answer(200, Rolling("false", "null")), Answer(200, Rolling("true", "180"))},
       R"({"limits":{"AutoUpdateValue":60},"options":{"rollOver":true,"rollOverCap":180}})",
       "anna, org.game: changed.\n"
       "KEY            BEFORE  NOW\n"
       "Roll Over      no      yes\n"
       "Roll Over Cap  none    180 min\n"},
      {"up to no bound, and nothing else",
       "limits|set|anna|org.game|Roll Over Cap=none",
       {Answer(200, Rolling("true", "180")), Answer(200, Rolling("true", "null"))},
       R"({"options":{"rollOverCap":null}})"},
      {"what the Server counts for itself, and a top-up without a time",
       "limits|set|anna|org.game|Unlimited=yes|Parallel=Union|Scope=user@host|AutoUpdateValue=60",
       {Answer(200, Counted("false", "sum", "user", 0)),
        Answer(200, Counted("true", "union", "user@host", 60))},
       R"({"limits":{"AutoUpdateValue":60},)"
       R"("options":{"unlimited":true,"parallel":"union","scope":"user@host"}})",
       "anna, org.game: changed.\n"
       "KEY              BEFORE  NOW\n"
       "AutoUpdateValue  0       60\n"
       "NextAutoUpdate   none    none: so no top-up comes\n"
       "Unlimited        no      yes\n"
       "Parallel         sum     union\n"
       "Scope            user    user@host\n",
       nullptr},
      {"... and back",
       "limits|unset|anna|org.game|Unlimited|Parallel|Scope|Schedule",
       {Answer(200, Counted("true", "union", "user@host", 0)),
        Answer(200, Counted("false", "sum", "user", 0))},
       R"({"options":{"unlimited":false,"parallel":"sum","scope":"user","schedule":null}})"},
      {"keys back to their first values",
       "limits|unset|anna|org.game|WD stop|Enabled|WD Curfew Enabled|AutoUpdateCoeff",
       {Answer(200, Game(0, kHours)), Answer(200, Game(0, kOpen))},
       R"({"limits":{"WD stop":1439,"Enabled":true,"WD Curfew Enabled":false,)"
       R"("AutoUpdateCoeff":1}})"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const auto [status, output, error, requests] = Vardellctl(row.words, row.answers);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(error.toStdString(), row.notice ? row.notice : error.toStdString());
    EXPECT_EQ(output.toStdString(), row.output ? row.output : output.toStdString());
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(FirstLine(requests[1]), QByteArray("PATCH /v1/users/") + row.target + " HTTP/1.1");
    EXPECT_EQ(BodyOf(requests[1]), QJsonDocument::fromJson(row.body).object());
    // Changed is what was read, and nothing else.
    const bool isNew = row.answers[0] == kNotFound;
    EXPECT_EQ(requests[1].contains("\r\nIf-None-Match: *\r\n"), isNew);
    EXPECT_EQ(requests[1].contains("\r\nIf-Match: \"7\"\r\n"), !isNew);
  }
}

TEST(LimitsCommands, ARemovedLimitIsShownOnceMoreWithTheCreditThatWent) {
  const QByteArray mismatch = Answer(412, R"({"title":"changed"})");
  const std::vector<QByteArray> answers{Answer(200, Game(1, kOpen)), mismatch,
                                        Answer(200, Game(42, kHours)),
                                        Answer(200, R"({"removed":true})")};
  const auto [status, output, error, requests] = Vardellctl("limits|unset|anna|org.game", answers);
  EXPECT_EQ(status, 0) << qPrintable(error);
  EXPECT_TRUE(output.startsWith(
      u"anna, org.game: the limit is removed, and 42 minutes of credit with it. It was:\n"_s));
  EXPECT_TRUE(output.contains(u"\nWD stop            20:00\n"_s)) << qPrintable(output);
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(FirstLine(requests[3]), "DELETE /v1/users/anna/limits/org.game HTTP/1.1");
  EXPECT_TRUE(requests[3].contains("\r\nIf-Match: \"7\"\r\n"));

  const QJsonObject json =
      QJsonDocument::fromJson(
          Vardellctl("limits|unset|anna|org.game|--json", answers).output.toUtf8())
          .object();
  EXPECT_EQ(json[u"removed"_s], true);
  EXPECT_EQ(json[u"limit"_s][u"credit"_s], 42);

  for (const char* words : {"limits|unset|anna|org.game", "limits|unset|anna|org.game|WD stop"}) {
    const Outcome missing = Vardellctl(words, {kNotFound});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.requests.size(), 1u);
  }
}

TEST(LimitsCommands, AddedMinutesAreSaidAsTheServerBookedThem) {
  const struct {
    const char* words;
    const char* answer;
    int minutes;
    const char* output;
  } rows[] = {
      {"credit|add|anna|org.game|10|--id|m", R"({"added":10,"credit":42})", 10,
       "anna, org.game: 10 minutes added, 42 left.\n"},
      {"credit|add|anna|org.game|+1|--id|m", R"({"added":1,"credit":1})", 1,
       "anna, org.game: 1 minute added, 1 left.\n"},
      {"credit|add|anna|computer|-30|--id|m", R"({"added":-12,"credit":0})", -30,
       "anna, computer: 12 minutes taken away instead of 30, 0 left.\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.words);
    const auto [status, output, error, requests] = Vardellctl(row.words, {Answer(200, row.answer)});
    EXPECT_EQ(status, 0) << qPrintable(error);
    EXPECT_EQ(output.toStdString(), row.output);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(FirstLine(requests[0]).startsWith("POST /v1/users/anna/limits/"));
    EXPECT_TRUE(FirstLine(requests[0]).endsWith("/adjustments HTTP/1.1"));
    EXPECT_EQ(BodyOf(requests[0]),
              (QJsonObject{{u"minutes"_s, row.minutes}, {u"id"_s, u"m"_s}, {u"reason"_s, u""_s}}));
  }
  const Outcome lost = Vardellctl("credit|add|anna|org.game|5|--id|it's me", {""});
  EXPECT_EQ(lost.status, 3);
  EXPECT_TRUE(lost.error.contains(u"with --id 'it'\\''s me' is safe to repeat"_s));
  const Outcome unasked = RunAt(u"/nonexistent"_s, Words("credit|add|anna|org.game|5"));
  EXPECT_EQ(unasked.status, 3);
  EXPECT_FALSE(unasked.error.contains(u"may have been done"_s)) << qPrintable(unasked.error);
}

TEST(LimitsCommands, ItIsSaidWhyNoTopUpComesAndHowItWould) {
  const QByteArray limit = Counted("true", "sum", "user", 60);
  const auto one = Vardellctl("limits|show|anna|org.game", {Answer(200, limit)});
  EXPECT_TRUE(one.output.contains(u"\nNextAutoUpdate     none: so no top-up comes\n"_s));
  EXPECT_TRUE(
      one.error.startsWith(u"vardellctl: anna, org.game gets no top-up before it is said "
                           "when: vardellctl limits set anna org.game NextAutoUpdate=20"_s))
      << qPrintable(one.error);
  const auto all = Vardellctl("limits|show|anna", {Answer(200, "{\"limits\":[" + limit + "]}")});
  EXPECT_TRUE(all.output.endsWith(
      u"  unlimited  yes      any time   any time   none: no next time  none\n"_s))
      << qPrintable(all.output);
  const QByteArray none = Counted("true", "sum", "user", 0);
  EXPECT_EQ(Vardellctl("limits|show|anna|org.game", {Answer(200, none)}).error, QString());
}

TEST(LimitsCommands, ATopUpIsListedWithHowItRollsOver) {
  const struct {
    QByteArray limit;
    const char* shown;
  } rows[] = {{Rolling("false", "180"), "  60 min  none\n"},
              {Rolling("true", "null"), "  60 min, rolls over  none\n"},
              {Rolling("true", "180"), "  60 min, rolls over up to 180 min  none\n"}};
  for (const auto& row : rows) {
    const auto shown =
        Vardellctl("limits|show|anna", {Answer(200, R"({"limits":[)" + row.limit + "]}")});
    EXPECT_TRUE(shown.output.endsWith(QLatin1String(row.shown))) << qPrintable(shown.output);
  }
}

TEST(LimitsCommands, HomeFoldersAreListedWithWhatTheyHave) {
  const QByteArray home =
      LimitOf("com.brenwick.globalSettings", 0, R"("DQ Enabled":true,"DQ Value":20000)");
  const QByteArray session = LimitOf("com.apple.loginwindow", 9, kHours);
  const std::vector<QByteArray> answers{Answer(200, R"({"users":["ben","anna"]})"),
                                        kNotFound,  // ben's was removed meanwhile
                                        Answer(200, "{\"limits\":[" + session + "," + home + "]}")};
  EXPECT_EQ(Vardellctl("limits|show", answers).output.toStdString(),
            "USER  IDENTIFIER  CREDIT  ENABLED  WEEK DAYS       WEEK-ENDS  TOP-UP  QUOTA\n"
            "anna  computer         9  yes      08:00 to 20:00  any time   none    none\n"
            "anna  home             -  -        -               -          -       20000 MiB\n");
  EXPECT_EQ(Vardellctl("credit|show|anna", {answers[2]}).output.toStdString(),
            "USER  IDENTIFIER  MINUTES\nanna  computer          9\n");
  EXPECT_EQ(Vardellctl("limits|show|anna|home", {Answer(200, home)}).output.toStdString(),
            "User        anna\nIdentifier  home\nDQ Enabled  yes\nDQ Value    20000 MiB\nRevision  "
            "  7\n");
}

TEST(LimitsCommands, PresetsAreListedWithoutAServer) {
  const Outcome outcome = RunAt(u"/nonexistent"_s, Words("limits|preset"));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(outcome.output.contains(u"school-day  15:00 to 19:30  as they are "_s));
}

TEST(TextTable, ColumnsLineUpForWideAndCombiningCharacters) {
  EXPECT_EQ(control::AlignedTable({{u"NAME"_s, u"N"_s},
                                   {u"日本"_s, u"7"_s},
                                   {u"e\u0301te\u0301"_s, u"12"_s},
                                   {u"\U00020000"_s, u"-"_s}}),
            u"NAME   N\n日本   7\ne\u0301te\u0301   12\n\U00020000     -\n"_s);
}

TEST(TextTable, ABarShowsEighthsOrWholeColumns) {
  const struct {
    double value;
    bool blocks;
    QString bar;
  } rows[] = {{10, true, u"████████"_s}, {5, true, u"████"_s}, {3.2, true, u"██▌"_s},
              {0.01, true, u"▏"_s},      {0, true, {}},        {99, true, u"████████"_s},
              {5, false, u"####"_s},     {0.01, false, u"#"_s}};
  for (const auto& row : rows) EXPECT_EQ(control::Bar(row.value, 10, 8, row.blocks), row.bar);
}

}  // namespace
}  // namespace vardell::test
