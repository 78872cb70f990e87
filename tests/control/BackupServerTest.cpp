// Backup and restore with the real Server. What goes wrong in the middle is in BackupTest.
#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "Common Sources/CompressedArchive.h"
#include "tests/support/Program.h"

namespace vardell::test {
namespace {

using namespace Qt::StringLiterals;

class BackupOfServer : public testing::Test {
 protected:
  BackupOfServer() {
    qputenv("VARDELL_TEST_ROOT", folder_.filePath(u"root"_s).toUtf8());
    Serve("first");
  }
  ~BackupOfServer() override { qunsetenv("VARDELL_TEST_ROOT"); }

  std::string At(const char* name) const {
    return folder_.filePath(QString::fromUtf8(name)).toStdString();
  }
  void Serve(const char* store) {
    server_ = Program({VARDELL_BIN_DIR "/vardell-server", "--listen", "127.0.0.1:0", "--no-publish",
                       "--store", At(store), "--control", At("control.sock")},
                      {.output = At("server.log")});
    ASSERT_TRUE(WaitUntil([&] { return Vardellctl({"status"}).status == 0; }))
        << qPrintable(server_.Output());
  }
  std::vector<std::string> Words(std::vector<std::string> words) const {
    words.insert(words.begin(), {VARDELL_BIN_DIR "/vardellctl", "--control", At("control.sock")});
    return words;
  }
  Finished Vardellctl(const std::vector<std::string>& words) const {
    return test::Run(Words(words), {});
  }
  void Do(const std::vector<std::string>& words) const {
    const Finished finished = Vardellctl(words);
    ASSERT_EQ(finished.status, 0) << qPrintable(finished.output);
  }

  // All but when it was made, and the revisions.
  QVariantMap State() const {
    Do({"backup", At("state")});
    QFile file(folder_.filePath(u"state"_s));
    if (!file.open(QIODevice::ReadOnly)) return {};
    QVariantMap document = CopyObjectFromCompressedArchive(file.readAll(), kArchiveKeyed).toMap();
    QVariantMap household = document[u"Household"_s].toMap();
    household.remove(u"made"_s);
    return {{u"Household"_s, household}, {u"Settings"_s, document[u"Settings"_s]}};
  }

  // What a backup's owner can do to it.
  void Rewrite(const char* name, const std::function<void(QVariantMap& household)>& change) const {
    QFile file(folder_.filePath(QString::fromUtf8(name)));
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    QVariantMap document = CopyObjectFromCompressedArchive(file.readAll(), kArchiveKeyed).toMap();
    QVariantMap household = document[u"Household"_s].toMap();
    change(household);
    document[u"Household"_s] = household;
    file.resize(0);
    file.write(CreateCompressedArchive(document, kArchiveKeyed));
  }
  // Days of use are booked by agents alone, or by a backup that holds them.
  void AddUse(const QString& day, qlonglong minutes) const {
    Do({"backup", At("use")});
    Rewrite("use", [&](QVariantMap& household) {
      household[u"usage"_s] = QVariantList{QVariantMap{{u"user"_s, u"anna"_s},
                                                       {u"identifier"_s, u"org.game"_s},
                                                       {u"days"_s, QVariantMap{{day, minutes}}}}};
    });
    Do({"restore", At("use"), "--yes"});
    QFile::remove(folder_.filePath(u"use.before-restore"_s));
  }

  // The next top-up is twelve hours ahead: none comes while a test runs.
  void MakeOld() const {
    const qint64 next = QDateTime::currentSecsSinceEpoch() - 978'307'200 + 12 * 3600;
    Do({"limits", "set", "anna", "org.game", "Credit=30", "WD start=08:00", "WD stop=24:00",
        "NextAutoUpdate=" + std::to_string(next), "AutoUpdateValue=2", "AutoUpdateCoeff=60",
        "Roll Over=on", "Roll Over Cap=180"});
    Do({"limits", "set", "bért", "computer", "Credit=2147483647", "Enabled=false"});
    Do({"limits", "set", "bért", "home", "DQ Enabled=true", "DQ Value=4096"});
    Do({"settings", "set", "Configuration=lock", "Server=a:1"});
    AddUse(u"2026-03-29"_s, 61);
  }
  void MakeNew() const {
    Do({"limits", "set", "anna", "org.game", "WD start=09:00"});
    Do({"credit", "set", "anna", "org.game", "3"});
    Do({"limits", "unset", "bért", "computer"});
    Do({"limits", "set", "carla", "org.other", "Credit=1"});
    Do({"settings", "set", "Configuration=retry"});
    Do({"settings", "unset", "Server"});
    AddUse(u"2026-10-25"_s, 7);
  }

  QTemporaryDir folder_;
  Program server_;
};

TEST_F(BackupOfServer, GivesBackWhatWasChangedAndFillsAnEmptyServer) {
  MakeOld();
  const QVariantMap old = State();
  const QString limits = Vardellctl({"credit", "show", "anna"}).output;
  Do({"backup", At("backup")});
  EXPECT_TRUE(
      Vardellctl({"restore", At("backup"), "--check"}).output.contains(u"Nothing differs"_s));
  MakeNew();
  const QVariantMap changed = State();
  EXPECT_NE(changed, old);

  Do({"restore", At("backup"), "--yes"});
  EXPECT_EQ(State(), old);
  EXPECT_EQ(Vardellctl({"credit", "show", "anna"}).output, limits);
  Do({"restore", At("backup.before-restore"), "--yes"});
  EXPECT_EQ(State(), changed);

  server_.End(SIGTERM);
  Serve("second");
  Do({"settings", "unset", "Configuration"});
  EXPECT_NE(State(), old);
  Do({"restore", At("backup"), "--yes"});
  EXPECT_EQ(State(), old);
}

TEST_F(BackupOfServer, WhatItsOwnerWroteIntoItIsForTheServerToRefuse) {
  MakeOld();
  Do({"backup", At("backup")});
  Rewrite("backup", [](QVariantMap& household) {
    QVariantList limits = household[u"limits"_s].toList();
    QVariantMap limit = limits[0].toMap();
    limit[u"credit"_s] = -1LL;
    limits[0] = limit;
    household[u"limits"_s] = limits;
  });
  Do({"settings", "set", "Configuration=carry-on"});
  const QVariantMap before = State();
  for (const char* how : {"--check", "--yes"}) {
    const Finished refused = Vardellctl({"restore", At("backup"), how});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.output.contains(u"limits[0].credit"_s)) << qPrintable(refused.output);
  }
  EXPECT_EQ(State(), before);
}

}  // namespace
}  // namespace vardell::test
