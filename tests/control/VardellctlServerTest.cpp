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

TEST(VardellctlServer, WhatIsSetIsShownAndACreditIsBookedOnce) {
  const QTemporaryDir folder;
  const std::string path = folder.path().toStdString();
  const Program server(
      {VARDELL_BIN_DIR "/vardell-server", "--listen", "127.0.0.1:0", "--no-publish", "--store",
       path + "/store.sqlite", "--control", path + "/control.sock"},
      {.output = path + "/server.log"});
  const auto vardellctl = [&](std::vector<std::string> words) {
    words.insert(words.begin(),
                 {VARDELL_BIN_DIR "/vardellctl", "--json", "--control", path + "/control.sock"});
    return test::Run(words, {});
  };
  const auto json = [&](const std::vector<std::string>& words) {
    return QJsonDocument::fromJson(vardellctl(words).output.toUtf8()).object();
  };
  ASSERT_TRUE(WaitUntil([&] { return vardellctl({"status"}).status == 0; }))
      << qPrintable(server.Output());

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

}  // namespace
}  // namespace vardell::test
