// The real vardellctl makes and restores backups, against a household in memory.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>

#include "Common Sources/CompressedArchive.h"
#include "Common Sources/PropertyListFiles.h"
#include "platform/Preferences.h"
#include "platform/linux/LinuxApplicationPreferences.h"
#include "tests/control/FakeHousehold.h"
#include "tests/support/KilledAt.h"
#include "tests/support/Program.h"

namespace vardell::test {
namespace {

using namespace Qt::StringLiterals;
using Trouble = FakeHousehold::Trouble;

QJsonObject Limit(const QString& user, const QString& identifier, qint64 credit) {
  return {{u"user"_s, user},
          {u"identifier"_s, identifier},
          {u"limits"_s, QJsonObject{{u"Enabled"_s, true}, {u"NextAutoUpdate"_s, 7.5e8}}},
          {u"credit"_s, credit}};
}

// Two applications are used on each of these days.
QJsonObject Household(const QJsonArray& limits, const QJsonObject& days) {
  QJsonArray usage;
  for (const QString& identifier : {u"org.game"_s, u"org.other"_s}) {
    usage.append(
        QJsonObject{{u"user"_s, u"anna"_s}, {u"identifier"_s, identifier}, {u"days"_s, days}});
  }
  return {{u"format"_s, 1},
          {u"made"_s, u"2026-11-20T18:00:00+01:00"_s},
          {u"server"_s, u"0.1.0"_s},
          {u"limits"_s, limits},
          {u"usage"_s, usage}};
}

const QJsonObject kOld = Household(
    {Limit(u"anna"_s, u"org.game"_s, 30), Limit(u"bért \U0001F600"_s, u"a/b c"_s, 2147483647)},
    {{u"2026-11-19"_s, 45}, {u"2026-11-20"_s, 7}});
const QJsonObject kNew =
    Household({Limit(u"anna"_s, u"org.game"_s, 31), Limit(u"anna"_s, u"org.other"_s, 0)},
              {{u"2026-11-20"_s, 8}});
const QVariantMap kOldSettings{{u"Configuration"_s, 1LL}, {u"Of others"_s, QVariantList{u"x"_s}}};
const QVariantMap kNewSettings{{u"Configuration"_s, 2LL}, {u"Server"_s, u"a:1"_s}};
const QVariantList kOldApplications{
    QVariantMap{{u"URL"_s, u"/x"_s}, {u"Name"_s, u"Größe"_s}, {u"Identifier"_s, u"org.game"_s}}};

class BackupAndRestore : public testing::Test {
 protected:
  BackupAndRestore() {
    qputenv("VARDELL_TEST_ROOT", root_.path().toUtf8());
    QDir().mkpath(QFileInfo(settingsPath_).path());
    SetOld();
  }
  ~BackupAndRestore() override { qunsetenv("VARDELL_TEST_ROOT"); }

  void Set(const QVariantMap& settings, const QVariantList& applications) const {
    QDir(QFileInfo(settingsPath_).path()).removeRecursively();
    QDir().mkpath(QFileInfo(settingsPath_).path());
    ASSERT_EQ(WritePropertyListToPath(settings, settingsPath_, true), 0);
    LinuxApplicationPreferences preferences;
    preferences.SetValue(u"Applications"_s, applications);
    ASSERT_TRUE(preferences.Synchronize());
  }
  void SetOld(Trouble trouble = Trouble::None) {
    Set(kOldSettings, kOldApplications);
    household_.SetState(kOld, trouble);
  }
  void SetNew(Trouble trouble = Trouble::None) {
    Set(kNewSettings, {});
    household_.SetState(kNew, trouble);
  }
  bool IsOld() const { return Is(kOld, kOldSettings, kOldApplications); }
  bool IsNew() const { return Is(kNew, kNewSettings, {}); }
  bool Is(const QJsonObject& household, const QVariantMap& settings,
          const QVariantList& applications) const {
    return household_.state() == household && ReadPropertyListFromPath(settingsPath_) == settings &&
           LinuxApplicationPreferences().Value(u"Applications"_s) == applications;
  }

  std::vector<std::string> Words(std::vector<std::string> words) const {
    words.insert(words.begin(),
                 {VARDELL_BIN_DIR "/vardellctl", "--control", household_.path().toStdString()});
    return words;
  }
  Finished Vardellctl(const std::vector<std::string>& words) const {
    return test::Run(Words(words), {});
  }
  Finished Backup() const { return Vardellctl({"backup", file_}); }
  Finished Restore(const std::string& from, const std::string& how = "--yes") const {
    return Vardellctl({"restore", from, how});
  }
  // After these commands of a shell, "$@" being the command.
  Finished InShell(const std::string& shell, const std::vector<std::string>& words) const {
    std::vector<std::string> command{"/bin/bash", "-c", shell, "bash"};
    for (const std::string& word : Words(words)) command.push_back(word);
    return test::Run(command, {});
  }

  static QByteArray Bytes(const std::string& path) {
    QFile file(QString::fromStdString(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
  }
  void Write(const QByteArray& bytes) const {
    QFile file(QString::fromStdString(file_));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
  }
  QStringList Files() const {
    return QDir(folder_.path()).entryList(QDir::Files | QDir::Hidden | QDir::System);
  }
  bool IsNoted() const { return QFile::exists(settingsPath_ + u".restoring"_s); }

  QTemporaryDir root_;
  QTemporaryDir folder_;
  const QString settingsPath_ = root_.path() + QLatin1String(kSystemPreferencesPath);
  const std::string file_ = folder_.filePath(u"it's a backup"_s).toStdString();
  const std::string kept_ = file_ + ".before-restore";
  FakeHousehold household_{kOld};
};

// ---- there and back ----

TEST_F(BackupAndRestore, GiveBackAllThatWasThereAndTakeItBackAgain) {
  const Finished made = Backup();
  EXPECT_EQ(made.status, 0);
  EXPECT_TRUE(made.output.startsWith(u"2 limits of 2 people, 2 days of use, 2 settings: "_s))
      << qPrintable(made.output);
  struct stat facts {};
  ASSERT_EQ(stat(file_.c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0600u);

  EXPECT_TRUE(
      Restore(file_, "--check")
          .output.contains(u" on "_s + QSysInfo::machineHostName() + u"\nNothing differs"_s));
  ASSERT_EQ(chmod(file_.c_str(), 0622), 0);
  EXPECT_TRUE(Restore(file_, "--check").output.contains(u"alone can write to this file"_s));
  EXPECT_EQ(Restore(file_).status, 0);
  EXPECT_EQ(Files().size(), 1);  // nothing to keep

  SetNew();
  const Finished checked = Restore(file_, "--check");
  EXPECT_TRUE(IsNew());
  for (const QString& line :
       {u"Limits:       1 removed, 1 added, 1 changed\n"_s, u"Days of use:  1 added, 1 changed\n"_s,
        u"Applications: 1 added\n"_s, u"Configuration  retry  lock\n"_s,
        u"Server         a:1    any (default)\n"_s, u"Of others      -      a list\n"_s}) {
    EXPECT_TRUE(checked.output.contains(line)) << qPrintable(checked.output);
  }
  const auto json = [this](const char* how) {
    const QString output = Vardellctl({"restore", file_, how, "--json"}).output;
    return QJsonDocument::fromJson(output.toUtf8()).object();
  };
  EXPECT_EQ(json("--check").keys(), json("--yes").keys());
  EXPECT_TRUE(IsOld());
  EXPECT_FALSE(IsNoted());
  EXPECT_EQ(Restore(kept_).status, 0);
  EXPECT_TRUE(IsNew());
}

TEST_F(BackupAndRestore, AnEarlierFileStaysUntilTheNewOneIsWhole) {
  ASSERT_EQ(Backup().status, 0);
  const QByteArray before = Bytes(file_);
  household_.SetState(kNew);
  EXPECT_EQ(
      InShell("(trap '' XFSZ; ulimit -f 0; exec \"$@\") 2>&1 | cat", {"backup", file_}).output,
      QString::fromStdString("vardellctl: " + file_ + " cannot be written: File too large\n"));
  household_.SetState({{u"limits"_s, 1}});
  EXPECT_EQ(Backup().status, 1);
  EXPECT_EQ(Bytes(file_), before);
  EXPECT_EQ(Files().size(), 1);

  household_.SetState(kNew);
  const std::string other = folder_.filePath(u"other"_s).toStdString();
  const std::vector<int (*)(const char*)> others{
      [](const char* path) { return mkfifo(path, 0600); },
      [](const char* path) { return mkdir(path, 0700); },
      [](const char* path) { return symlink("/dev/null", path); }};
  for (const auto& make : others) {
    ASSERT_EQ(make(other.c_str()), 0);
    EXPECT_TRUE(Vardellctl({"backup", other}).output.contains(u"is no regular file"_s));
    ASSERT_EQ(std::remove(other.c_str()), 0);
  }
}

TEST_F(BackupAndRestore, WhatIsNoSoundBackupIsRefusedBeforeAnybodyIsAsked) {
  ASSERT_EQ(Backup().status, 0);
  const QByteArray sound = Bytes(file_);
  const auto flipped = [&](qsizetype at) {
    QByteArray bytes = sound;
    bytes[at] = static_cast<char>(bytes[at] ^ 1);
    return bytes;
  };
  QVariantMap document = CopyObjectFromCompressedArchive(sound, kArchiveKeyed).toMap();
  const auto with = [&](const QString& key, const QVariant& value) {
    QVariantMap changed = document;
    changed[key] = value;
    return CreateCompressedArchive(changed, kArchiveKeyed);
  };
  QVariantMap household = document[u"Household"_s].toMap();
  household[u"limits"_s] =
      QVariantList{household[u"limits"_s].toList()[0], QVariantMap{{u"user"_s, 1LL}}};
  const struct {
    QByteArray bytes;
    const char* says;
  } rows[] = {
      {"", "is no backup of Vardell"},
      {"#!/bin/sh\necho this is something else\n", "is no backup of Vardell"},
      {QByteArray(1000, '\0'), "is no backup of Vardell"},
      {sound.left(30), "is damaged"},
      {sound.chopped(1), "is damaged"},
      {sound + 'x', "is damaged"},
      {flipped(0), "is damaged"},
      {flipped(3), "is damaged"},
      {flipped(10), "is damaged"},
      {flipped(sound.size() / 2), "is damaged"},
      {flipped(sound.size() - 1), "is damaged"},
      {CreateCompressedArchive(document, kArchiveSequential), "is damaged"},
      {CreateCompressedArchive(QVariantList{1LL}, kArchiveKeyed), "it is no backup"},
      {with(u"Vardell Backup"_s, 2LL), "it is of version 2"},
      {with(u"Made"_s, u"today"_s), "\"Made\" is no date"},
      {with(u"Household"_s, household), "\"Household.limits[1]\" is not as it should be"},
      {with(u"Settings"_s, QVariantMap{{u"x"_s, u"\x01"_s}}), "\"Settings\" cannot be stored"},
      {with(u"Applications"_s, QVariantList{1LL}), "\"Applications[0]\" is not as it should be"},
  };
  const std::size_t asked = household_.requestCount();
  for (const auto& row : rows) {
    Write(row.bytes);
    const Finished refused = Restore(file_);
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.output.contains(QString::fromUtf8(row.says)))
        << row.says << ": " << qPrintable(refused.output);
  }
  for (const std::string& path : {root_.path().toStdString(), file_ + "-not-there"}) {
    EXPECT_EQ(Restore(path).status, 1);
  }
  EXPECT_EQ(household_.requestCount(), asked);
  EXPECT_TRUE(IsOld());
}

// ---- somebody must say yes ----

TEST_F(BackupAndRestore, NothingIsReplacedUnlessSomebodySaysYes) {
  ASSERT_EQ(Backup().status, 0);
  SetNew();
  const Finished unasked = Vardellctl({"restore", file_});
  EXPECT_EQ(unasked.status, 2);
  EXPECT_TRUE(unasked.output.contains(u"give --yes"_s));
  for (const auto& [answer, isRestored] : {std::pair("no", false), {"", false}, {"y", true}}) {
    const Finished asked = InShell(
        "echo " + std::string(answer) + " | script -qec \"$(printf '%q ' \"$@\")\" /dev/null",
        {"restore", file_});
    EXPECT_TRUE(asked.output.contains(u"Put this in the place of what is there now? [y/N]"_s))
        << qPrintable(asked.output);
    EXPECT_EQ(IsOld(), isRestored) << answer;
    EXPECT_EQ(IsNew(), !isRestored) << answer;
  }
}

// ---- what goes wrong in the middle ----

TEST_F(BackupAndRestore, AStepThatFailsPutsBackWhatWasDoneBefore) {
  ASSERT_EQ(Backup().status, 0);
  const struct {
    Trouble trouble;
    QString blocked;  // a folder stands where a file is to be written
    const char* says;
  } rows[] = {{Trouble::Refuses, {}, "the store is full\nNothing was changed"},
              {Trouble::None, settingsPath_ + u".tmp"_s, "They are as they were"},
              {Trouble::None, ApplicationPreferencesPath(), "is no regular file"},
              {Trouble::Stops, {}, "No such file or directory\nStart it"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    SetNew(row.trouble);
    if (!row.blocked.isEmpty()) {
      QFile::remove(row.blocked);
      ASSERT_TRUE(QDir().mkpath(row.blocked + u"/x"_s));
    }
    const Finished failed = Restore(file_);
    EXPECT_NE(failed.status, 0);
    EXPECT_TRUE(failed.output.contains(QString::fromUtf8(row.says))) << qPrintable(failed.output);
    EXPECT_TRUE(failed.output.contains(u"Nothing was changed"_s));
    if (!row.blocked.isEmpty()) QDir(row.blocked).removeRecursively();
    EXPECT_EQ(household_.state(), kNew);
    EXPECT_EQ(ReadPropertyListFromPath(settingsPath_), kNewSettings);
    if (row.blocked != ApplicationPreferencesPath()) {
      EXPECT_EQ(LinuxApplicationPreferences().Value(u"Applications"_s), QVariantList());
    }
    EXPECT_FALSE(IsNoted());
    EXPECT_EQ(Files().size(), 1) << "what was kept is needed no more";
  }
}

TEST_F(BackupAndRestore, ALostAnswerIsAskedForAnewAndElseSaid) {
  ASSERT_EQ(Backup().status, 0);
  SetNew(Trouble::LosesAnswer);
  EXPECT_EQ(Restore(file_).status, 0);
  EXPECT_TRUE(IsOld());

  ASSERT_EQ(QFile::remove(QString::fromStdString(kept_)), true);
  SetNew(Trouble::LosesRequest);
  const Finished lost = Restore(file_);
  EXPECT_EQ(lost.status, 1);
  EXPECT_TRUE(lost.output.contains(u"the Server's answer was lost"_s)) << qPrintable(lost.output);
  EXPECT_TRUE(lost.output.contains(u"a backup' --check shows whether anything differs"_s));
  EXPECT_TRUE(Is(kNew, kOldSettings, kOldApplications));
  EXPECT_TRUE(
      Vardellctl({"settings", "show"}).output.contains(u"a restore did not come to its end"_s));
  EXPECT_EQ(Restore(kept_).status, 0);
  EXPECT_TRUE(IsNew());
  EXPECT_FALSE(IsNoted());
}

TEST_F(BackupAndRestore, InterruptedItWaitsForNobody) {
  ASSERT_EQ(Backup().status, 0);
  const struct {
    Trouble trouble;
    int puts;  // that the Server has got by then
    const char* says;
  } rows[] = {{Trouble::HoldsTheSecond, 0, "interrupted\nNothing was changed"},
              {Trouble::HoldsThePut, 1, "the Server's answer was lost: interrupted"}};
  for (const auto& row : rows) {
    SetNew(row.trouble);
    Program restore(Words({"restore", file_, "--yes"}),
                    {.output = folder_.filePath(u"log"_s).toStdString()});
    EXPECT_TRUE(WaitUntil([&] { return household_.gets() == 2 && household_.puts() == row.puts; }));
    restore.Signal(SIGINT);
    EXPECT_EQ(restore.Wait(), 1);
    EXPECT_TRUE(restore.Output().contains(QString::fromUtf8(row.says)))
        << qPrintable(restore.Output());
    EXPECT_EQ(IsNew(), row.puts == 0);
    EXPECT_EQ(IsNoted(), row.puts == 1);
    household_.SetState(kNew);
  }
}

TEST_F(BackupAndRestore, KilledAtAnyMomentNothingIsLost) {
  ASSERT_EQ(Backup().status, 0);
  int mixed = 0;
  int n = 1;
  for (;; ++n) {
    SCOPED_TRACE(n);
    SetNew();
    for (const QString& name : Files()) {
      if (name.contains(u".before-restore"_s)) QFile::remove(folder_.filePath(name));
    }
    int status = 0;
    if (!RunKilledAt(n, Words({"restore", file_, "--yes"}), &status)) {
      EXPECT_EQ(status, 0);
      EXPECT_TRUE(IsOld());
      break;
    }
    const Finished shown = Vardellctl({"settings", "show"});
    ASSERT_EQ(shown.status, 0) << qPrintable(shown.output);
    if (IsNew() || IsOld()) continue;
    ++mixed;
    ASSERT_TRUE(shown.output.contains(u"a restore did not come to its end"_s));
    ASSERT_EQ(Restore(kept_).status, 0);
    ASSERT_TRUE(IsNew());
    ASSERT_FALSE(IsNoted());
  }
  EXPECT_GE(mixed, 3);
}

}  // namespace
}  // namespace vardell::test
