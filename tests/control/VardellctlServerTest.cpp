// vardellctl and the real Server: the two sides of docs/control-api.md meet.
#include <gtest/gtest.h>
#include <pwd.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <fstream>

#include "tests/server/Client.h"
#include "tests/support/Program.h"

namespace vardell::test {
namespace {

using namespace Qt::StringLiterals;

// The Server is in the farthest east, vardellctl in the farthest west: their days are never the
// same.
class VardellctlServer : public testing::Test {
 protected:
  void SetUp() override {
    server_ = Program({VARDELL_BIN_DIR "/vardell-server", "--listen", "127.0.0.1:0", "--no-publish",
                       "--store", path_ + "/store.sqlite", "--control", path_ + "/control.sock"},
                      {.environment = {{"TZ", "Pacific/Kiritimati"}}, .output = path_ + "/log"});
    ASSERT_TRUE(WaitUntil([&] { return vardellctl({"status"}).status == 0; }))
        << qPrintable(server_.Output());
  }

  Finished vardellctl(std::vector<std::string> words) const {
    words.insert(words.begin(),
                 {VARDELL_BIN_DIR "/vardellctl", "--control", path_ + "/control.sock"});
    return test::Run(words, {.environment = {{"TZ", "Pacific/Pago_Pago"}}});
  }
  QJsonObject json(std::vector<std::string> words) const {
    words.insert(words.begin(), "--json");
    return QJsonDocument::fromJson(vardellctl(words).output.toUtf8()).object();
  }

  // What an agent of this user is answered when it starts org.game, after it has reported that so
  // many minutes are left.
  int Launched(const Client& agent, std::optional<int> left = {}) const {
    const QStringList names{user_, u"org.game"_s};
    LimitsRecord record;
    record.credit = left.value_or(0);
    agent.Send(left ? FrameOf(RequestKind::CreditReport,
                              AppendLimitsRecordToData(names[0], names[1], record))
                    : FrameOf(RequestKind::ApplicationStart, names));
    agent.Send(FrameOf(RequestKind::FetchLimits, names));
    return agent.ReadDictionary().value_or(QVariantMap())[u"Credit"_s].toInt();
  }
  std::uint16_t Port() const {
    return json({"status"})[u"address"_s].toString().section(u':', 1).toUShort();
  }

  const QTemporaryDir folder_;
  const std::string path_ = folder_.path().toStdString();
  const QString user_ = QString::fromUtf8(getpwuid(getuid())->pw_name);
  const std::string name_ = user_.toStdString();
  Program server_;
};

TEST_F(VardellctlServer, WhatIsSetIsShownAndMinutesAreBookedOnce) {
  const std::string odd = "a/b c?d#e%\u00eb..";
  const struct {
    std::vector<std::string> words;
    const char* says = "";
    int status = 0;
  } rows[] = {
      {{"limits", "set", "anna", odd, "Credit=7", "WD stop=24:00"}},
      {{"limits", "set", "anna", odd, "WE start=08:30"}},
      {{"credit", "set", "anna", odd, "30", "--id", "monday"}},
      {{"credit", "set", "anna", odd, "30", "--id", "monday"}},
      {{"credit", "set", "anna", odd, "31", "--id", "monday"}, "", 1},
      {{"limits", "set", "anna", "computer", "Credit=7", "WD start=8:00"}},
      {{"credit", "add", "anna", "computer", "10", "--id", "once"}, "10 minutes added, 17 left.\n"},
      {{"credit", "add", "anna", "computer", "10", "--id", "once"}, "10 minutes added, 17 left.\n"},
      {{"credit", "add", "anna", "computer", "11", "--id", "once"}, "", 1},
      {{"credit", "add", "anna", "computer", "-30"}, "17 minutes taken away instead of 30, 0 left"},
      {{"limits", "unset", "anna", "computer", "WD start"}, "\nWD start  08:00   00:00\n"},
      {{"limits", "set", "anna", "computer", "Roll Over=on"}, "\nRoll Over  no      yes\n"},
      {{"limits", "set", "anna", "home", "Roll Over=on"}, "", 1},
      {{"limits", "preset", "anna", "computer", "bedtime"}},
      {{"limits", "show", "anna", "computer"}, "\nWE stop            22:00\n"},
      {{"limits", "unset", "anna", "computer"}, "the limit is removed"},
      {{"limits", "show", "anna", "computer"}, "", 1},
      {{"limits", "show"}},
  };
  for (const auto& row : rows) {
    const Finished finished = vardellctl(row.words);
    EXPECT_EQ(finished.status, row.status) << qPrintable(finished.output);
    EXPECT_TRUE(finished.output.contains(QLatin1String(row.says))) << qPrintable(finished.output);
  }
  const QJsonObject limit = json({"limits", "show", "anna", odd});
  EXPECT_EQ(limit[u"identifier"_s].toString().toStdString(), odd);
  EXPECT_EQ(limit[u"credit"_s], 30);
  EXPECT_EQ(limit[u"revision"_s], 2);
  EXPECT_EQ(limit[u"limits"_s][u"Enabled"_s], true);
  EXPECT_EQ(limit[u"limits"_s][u"WD stop"_s], 1440);
  EXPECT_EQ(limit[u"limits"_s][u"WE start"_s], 510);
  const QJsonArray booked = json({"ledger", "anna", odd, "--after", "1"})[u"rows"_s].toArray();
  ASSERT_EQ(booked.size(), 1);
  EXPECT_EQ(booked[0][u"minutes"_s], 23);
}

TEST_F(VardellctlServer, AnAgentsMinuteIsUsageOfTheServersDayAndShowsInTheStatus) {
  vardellctl({"limits", "set", name_, "org.game", "Credit=30"});
  const Client agent(Port());
  EXPECT_EQ(Launched(agent), 30);
  EXPECT_EQ(Launched(agent, 29), 29);
  const QString status = vardellctl({"status"}).output;
  EXPECT_TRUE(status.contains(u"\nTime zone:  Pacific/Kiritimati\n"_s)) << qPrintable(status);
  EXPECT_TRUE(status.contains(u"  org.game (29 min)\n"_s)) << qPrintable(status);
  for (const std::string period : {"today", "week", "all"}) {
    EXPECT_EQ(json({"usage", name_, "org.game", "--period", period})[u"total"_s], 1) << period;
    EXPECT_EQ(json({"usage", name_, "--period", period})[u"usage"_s][0][u"total"_s], 1) << period;
  }
  EXPECT_EQ(vardellctl({"usage", "nobody else"}).status, 1);
}

TEST_F(VardellctlServer, AgentsAreAnsweredByTheOptionsThatWereSet) {
  const Client agent(Port());
  const std::string file = path_ + "/hours";
  std::ofstream(file) << "daily all-day\n";
  const struct {
    std::vector<std::string> words;
    int launched;  // then
    int status = 0;
  } rows[] = {
      {{"schedule", "set", name_, "org.game", "daily closed"}, kSpentCredit},
      {{"credit", "set", name_, "org.game", "30"}, kSpentCredit},
      {{"schedule", "set", name_, "org.game", file}, 30},
      {{"limits", "set", name_, "org.game", "Scope=user@host"}, 30},
      {{"credit", "set", name_ + "@local", "org.game", "7"}, 7},
      {{"limits", "set", name_ + "@local", "org.game", "WD start=8:00"}, 7, 1},
      {{"limits", "set", name_, "org.game", "Unlimited=yes"}, 59999},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(vardellctl(row.words).status, row.status) << row.words.back();
    EXPECT_EQ(Launched(agent), row.launched) << row.words.back();
  }
  EXPECT_TRUE(vardellctl({"schedule", "show", name_, "org.game"}).output.contains(u"all-day"_s));
  EXPECT_TRUE(vardellctl({"status"}).output.contains(u"  org.game (unlimited)\n"_s));
  EXPECT_EQ(vardellctl({"limits", "unset", name_, "org.game"}).status, 0);
  EXPECT_EQ(vardellctl({"limits", "show", name_ + "@local", "org.game"}).status, 1);
}

}  // namespace
}  // namespace vardell::test
