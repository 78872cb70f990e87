// vardellctl and the real Server: the two sides of docs/control-api.md meet.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "tests/support/Program.h"

namespace vardell::test {
namespace {

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
  const QJsonObject keys = limit[QStringLiteral("limits")].toObject();
  EXPECT_EQ(QStringLiteral("a/b c?.."), limit[QStringLiteral("identifier")].toString());
  EXPECT_EQ(7, limit[QStringLiteral("credit")].toInt());
  EXPECT_EQ(2, limit[QStringLiteral("revision")].toInt());
  EXPECT_TRUE(keys[QStringLiteral("Enabled")].toBool());
  EXPECT_EQ(1440, keys[QStringLiteral("WD stop")].toInt());
  EXPECT_EQ(510, keys[QStringLiteral("WE start")].toInt());
  EXPECT_EQ(1439, keys[QStringLiteral("WE stop")].toInt());
}

TEST_F(VardellctlServerTest, CreditIsSetOnceForAnIdAndBookedInTheLedger) {
  ASSERT_EQ(0, Status({"limits", "set", "anna", "game", "Credit=10"}));
  const std::vector<std::string> set{"credit",   "set",  "anna", "game",  "30",
                                     "--reason", "tidy", "--id", "monday"};
  EXPECT_EQ(0, Status(set));
  EXPECT_EQ(0, Status(set));
  EXPECT_EQ(1, Status({"credit", "set", "anna", "game", "31", "--id", "monday"}));
  const QJsonArray rows = Json({"ledger", "anna", "game"})[QStringLiteral("rows")].toArray();
  ASSERT_EQ(2, rows.size());
  EXPECT_EQ(20, rows[1].toObject()[QStringLiteral("minutes")].toInt());
  EXPECT_EQ(30, rows[1].toObject()[QStringLiteral("credit")].toInt());
  EXPECT_EQ(QStringLiteral("tidy"), rows[1].toObject()[QStringLiteral("reason")].toString());
  const QJsonObject rest = Json({"ledger", "anna", "game", "--after", "1"});
  EXPECT_EQ(1, rest[QStringLiteral("rows")].toArray().size());
}

}  // namespace
}  // namespace vardell::test
