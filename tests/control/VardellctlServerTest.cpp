// vardellctl and the real Server: the two sides of docs/control-api.md meet.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "tests/support/Program.h"

namespace vardell::test {
namespace {

using namespace Qt::StringLiterals;

class VardellctlServerTest : public testing::Test {
 protected:
  void SetUp() override {
    server_ = Program({VARDELL_BIN_DIR "/vardell-server", "--listen", "127.0.0.1:0", "--no-publish",
                       "--store", Path("store.sqlite"), "--control", Path("control.sock")},
                      {.environment = {}, .output = Path("server.log")});
    ASSERT_TRUE(WaitUntil([this] { return Ctl({"status"}).status == 0; }))
        << qPrintable(server_.Output());
  }

  std::string Path(const char* name) const {
    return folder_.filePath(QString::fromLatin1(name)).toStdString();
  }
  Finished Ctl(std::vector<std::string> words) const {
    const std::vector<std::string> program{VARDELL_BIN_DIR "/vardellctl", "--json", "--control",
                                           Path("control.sock")};
    words.insert(words.begin(), program.begin(), program.end());
    return test::Run(words, {});
  }
  QJsonObject Json(const std::vector<std::string>& words) const {
    return QJsonDocument::fromJson(Ctl(words).output.toUtf8()).object();
  }
  int Status(const std::vector<std::string>& words) const { return Ctl(words).status; }

  QTemporaryDir folder_;
  Program server_;
};

TEST_F(VardellctlServerTest, ANewIdentifierIsEnabledAndKeepsWhatWasSet) {
  ASSERT_EQ(0, Status({"limits", "set", "anna", "a/b c?..", "Credit=7", "WD stop=24:00"}));
  ASSERT_EQ(0, Status({"limits", "set", "anna", "a/b c?..", "WE start=08:30"}));
  const QJsonObject limit = Json({"limits", "show", "anna", "a/b c?.."});
  const QJsonObject keys = limit[u"limits"_s].toObject();
  EXPECT_EQ(limit[u"identifier"_s].toString(), u"a/b c?.."_s);
  EXPECT_EQ(limit[u"credit"_s].toInt(), 7);
  EXPECT_EQ(limit[u"revision"_s].toInt(), 2);
  EXPECT_EQ(keys[u"Enabled"_s], true);
  EXPECT_EQ(keys[u"WD stop"_s], 1440);
  EXPECT_EQ(keys[u"WE start"_s], 510);
  EXPECT_EQ(keys[u"WE stop"_s], 1439);
}

TEST_F(VardellctlServerTest, CreditIsSetOnceForAnIdAndBookedInTheLedger) {
  ASSERT_EQ(0, Status({"limits", "set", "anna", "game", "Credit=10"}));
  const std::vector<std::string> set{"credit",   "set",  "anna", "game",  "30",
                                     "--reason", "tidy", "--id", "monday"};
  EXPECT_EQ(0, Status(set));
  EXPECT_EQ(0, Status(set));
  EXPECT_EQ(1, Status({"credit", "set", "anna", "game", "31", "--id", "monday"}));
  const QJsonArray rows = Json({"ledger", "anna", "game"})[u"rows"_s].toArray();
  ASSERT_EQ(rows.size(), 2);
  EXPECT_EQ(rows[1][u"minutes"_s], 20);
  EXPECT_EQ(rows[1][u"credit"_s], 30);
  EXPECT_EQ(rows[1][u"reason"_s], u"tidy"_s);
  const QJsonObject rest = Json({"ledger", "anna", "game", "--after", "1"});
  EXPECT_EQ(rest[u"rows"_s].toArray().size(), 1);
}

}  // namespace
}  // namespace vardell::test
