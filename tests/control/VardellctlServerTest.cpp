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

  const QTemporaryDir folder_;
  const std::string path_ = folder_.path().toStdString();
  Program server_;
};

TEST_F(VardellctlServer, WhatIsSetIsShownAndACreditIsBookedOnce) {
  const std::string name = "a/b c?..";
  EXPECT_EQ(vardellctl({"limits", "set", "anna", name, "Credit=7", "WD stop=24:00"}).status, 0);
  EXPECT_EQ(vardellctl({"limits", "set", "anna", name, "WE start=08:30"}).status, 0);
  const QJsonObject limit = json({"limits", "show", "anna", name});
  const QJsonObject keys = limit[u"limits"_s].toObject();
  EXPECT_EQ(limit[u"identifier"_s].toString().toStdString(), name);
  EXPECT_EQ(limit[u"credit"_s], 7);
  EXPECT_EQ(limit[u"revision"_s], 2);
  EXPECT_EQ(keys[u"Enabled"_s], true);
  EXPECT_EQ(keys[u"WD stop"_s], 1440);
  EXPECT_EQ(keys[u"WE start"_s], 510);
  EXPECT_EQ(keys[u"WE stop"_s], 1439);

  for (const auto& [minutes, status] : {std::pair("30", 0), {"30", 0}, {"31", 1}}) {
    const Finished set = vardellctl({"credit", "set", "anna", name, minutes, "--id", "monday"});
    EXPECT_EQ(set.status, status) << minutes;
  }
  const QJsonArray rows = json({"ledger", "anna", name, "--after", "1"})[u"rows"_s].toArray();
  ASSERT_EQ(rows.size(), 1);
  EXPECT_EQ(rows[0][u"minutes"_s], 23);
}

TEST_F(VardellctlServer, MinutesAreAddedOnceAndALimitGoesWithWhatItHad) {
  EXPECT_EQ(vardellctl({"limits", "set", "anna", "computer", "Credit=7", "WD start=8:00"}).status,
            0);
  for (int asked = 0; asked < 2; ++asked) {
    EXPECT_EQ(vardellctl({"credit", "add", "anna", "computer", "10", "--id", "once"}).output,
              u"anna, computer: 10 minutes added, 17 left.\n"_s);
  }
  EXPECT_EQ(vardellctl({"credit", "add", "anna", "computer", "11", "--id", "once"}).status, 1);
  EXPECT_EQ(vardellctl({"credit", "add", "anna", "computer", "-30"}).output,
            u"anna, computer: 17 minutes taken away instead of 30, 0 left.\n"_s);
  EXPECT_EQ(vardellctl({"limits", "unset", "anna", "computer", "WD start"}).output,
            u"anna, computer: changed.\nKEY       BEFORE  NOW\nWD start  08:00   00:00\n"_s);
  EXPECT_EQ(vardellctl({"limits", "set", "anna", "computer", "Roll Over=on"}).output,
            u"anna, computer: changed.\nKEY        BEFORE  NOW\nRoll Over  no      yes\n"_s);
  EXPECT_EQ(vardellctl({"limits", "set", "anna", "home", "Roll Over=on"}).status, 1);
  EXPECT_EQ(vardellctl({"limits", "preset", "anna", "computer", "bedtime"}).status, 0);
  EXPECT_EQ(json({"limits", "show", "anna", "computer"})[u"limits"_s][u"WE stop"_s], 22 * 60);
  EXPECT_EQ(json({"limits", "unset", "anna", "computer"})[u"removed"_s], true);
  EXPECT_EQ(vardellctl({"limits", "show", "anna", "computer"}).status, 1);
  EXPECT_EQ(vardellctl({"limits", "show"}).status, 0);
}

TEST_F(VardellctlServer, AnAgentsMinuteIsUsageOfTheServersDayAndShowsInTheStatus) {
  const QString user = QString::fromUtf8(getpwuid(getuid())->pw_name);
  const std::string name = user.toStdString();
  vardellctl({"limits", "set", name, "org.game", "Credit=30"});
  const QString address = json({"status"})[u"address"_s].toString();
  const Client agent(address.section(u':', 1).toUShort());
  LimitsRecord record;
  record.credit = 29;
  const QStringList names{user, u"org.game"_s};
  agent.Send(FrameOf(RequestKind::ApplicationStart, names) +
             FrameOf(RequestKind::FetchLimits, names));
  ASSERT_TRUE(agent.ReadDictionary());
  agent.Send(
      FrameOf(RequestKind::CreditReport, AppendLimitsRecordToData(names[0], names[1], record)) +
      FrameOf(RequestKind::FetchLimits, names));
  ASSERT_TRUE(agent.ReadDictionary());

  const QString status = vardellctl({"status"}).output;
  EXPECT_TRUE(status.contains(u"\nTime zone:  Pacific/Kiritimati\n"_s)) << qPrintable(status);
  EXPECT_TRUE(status.contains(u"  org.game (29 min)\n"_s)) << qPrintable(status);
  for (const std::string period : {"today", "week", "all"}) {
    EXPECT_EQ(json({"usage", name, "org.game", "--period", period})[u"total"_s], 1) << period;
    EXPECT_EQ(json({"usage", name, "--period", period})[u"usage"_s][0][u"total"_s], 1) << period;
  }
  EXPECT_EQ(vardellctl({"usage", "nobody else"}).status, 1);
}

TEST_F(VardellctlServer, AgentsAreAnsweredByTheOptionsThatWereSet) {
  const QString user = QString::fromUtf8(getpwuid(getuid())->pw_name);
  const std::string name = user.toStdString();
  const QString address = json({"status"})[u"address"_s].toString();
  const Client agent(address.section(u':', 1).toUShort());
  const auto launched = [&] {
    const QStringList names{user, u"org.game"_s};
    agent.Send(FrameOf(RequestKind::ApplicationStart, names) +
               FrameOf(RequestKind::FetchLimits, names));
    return agent.ReadDictionary().value_or(QVariantMap())[u"Credit"_s].toInt();
  };
  EXPECT_EQ(vardellctl({"schedule", "set", name, "org.game", "daily closed"}).status, 0);
  EXPECT_EQ(vardellctl({"credit", "set", name, "org.game", "30"}).status, 0);
  EXPECT_EQ(launched(), kSpentCredit);
  const QString shown = vardellctl({"schedule", "show", name, "org.game"}).output;
  EXPECT_TRUE(shown.endsWith(u"\ndaily   closed\n"_s)) << qPrintable(shown);
  const std::string file = path_ + "/hours";
  std::ofstream(file) << "daily all-day\n";
  EXPECT_EQ(vardellctl({"schedule", "set", name, "org.game", file}).status, 0);
  EXPECT_EQ(launched(), 30);
  EXPECT_EQ(vardellctl({"limits", "set", name, "org.game", "Scope=user@host"}).status, 0);
  EXPECT_EQ(launched(), 30);
  EXPECT_EQ(vardellctl({"credit", "set", name + "@local", "org.game", "7"}).status, 0);
  EXPECT_EQ(launched(), 7);
  EXPECT_EQ(vardellctl({"limits", "set", name + "@local", "org.game", "WD start=8:00"}).status, 1);
  EXPECT_EQ(vardellctl({"limits", "set", name, "org.game", "Unlimited=yes"}).status, 0);
  EXPECT_GT(launched(), 10000);
  const QString status = vardellctl({"status"}).output;
  EXPECT_TRUE(status.contains(u"  org.game (unlimited)\n"_s)) << qPrintable(status);
  EXPECT_EQ(vardellctl({"limits", "unset", name, "org.game"}).status, 0);
  EXPECT_EQ(vardellctl({"limits", "show", name + "@local", "org.game"}).status, 1);
}

}  // namespace
}  // namespace vardell::test
