#include "platform/linux/LinuxApplicationPreferences.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "Common Sources/PropertyList.h"
#include "tests/support/OtherUsers.h"

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

const QString kKey = u"Applications"_s;

class ApplicationPreferencesTest : public testing::Test {
 protected:
  void Write(const QByteArray& text) const {
    QFile file(path_);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) abort();
  }
  QByteArray Contents(const QString& path) const {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("none");
  }
  QVariant Stored(const QString& key) const {
    return LinuxApplicationPreferences(path_).Value(key).value_or(QVariant());
  }
  QStringList Files() const {
    return QDir(folder_.path())
        .entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot);
  }

  QTemporaryDir folder_;
  QString path_ = folder_.filePath(u"config.plist"_s);
};

TEST_F(ApplicationPreferencesTest, AreStoredWhenSynchronisedAndKeepWhatOthersSet) {
  LinuxApplicationPreferences one(folder_.filePath(u"new/er/config.plist"_s));
  LinuxApplicationPreferences other(folder_.filePath(u"new/er/config.plist"_s));
  one.SetValue(kKey, u"first"_s);
  EXPECT_EQ(one.Value(kKey), QVariant(u"first"_s));
  EXPECT_EQ(Files(), QStringList());
  ASSERT_TRUE(one.Synchronize());
  other.SetValue(u"Other"_s, 17);
  EXPECT_EQ(other.Value(kKey), std::nullopt);
  ASSERT_TRUE(other.Synchronize());
  EXPECT_EQ(other.Value(kKey), QVariant(u"first"_s));
  ASSERT_TRUE(one.Synchronize());
  EXPECT_EQ(one.Value(u"Other"_s), QVariant(17));
  struct stat status {};
  ASSERT_EQ(stat(folder_.filePath(u"new"_s).toUtf8(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);
}

TEST_F(ApplicationPreferencesTest, ChangesOfSeveralProgramsAtOnceAreAllKept) {
  constexpr int kPrograms = 4;
  constexpr int kChanges = 20;
  for (int program = 0; program < kPrograms; ++program) {
    if (fork() != 0) continue;
    for (int change = 0; change < kChanges; ++change) {
      LinuxApplicationPreferences own(path_);
      own.SetValue(u"%1 %2"_s.arg(program).arg(change), true);
      LinuxApplicationPreferences shared(path_);
      if (!own.Synchronize() || !shared.Lock() || !shared.Synchronize()) _exit(1);
      shared.SetValue(kKey, shared.Value(kKey).value_or(0).toInt() + 1);
      if (!shared.Synchronize()) _exit(1);
    }
    _exit(0);
  }
  int status = 0;
  while (wait(&status) > 0) EXPECT_EQ(status, 0);
  EXPECT_EQ(Stored(kKey), QVariant(kPrograms * kChanges));
  const std::optional<QVariant> all = ReadPropertyListXml(Contents(path_));
  EXPECT_EQ(all.value_or(QVariant()).toMap().size(), kPrograms * kChanges + 1);
}

// ---- failures ----------------------------------------------------------------------------------

TEST_F(ApplicationPreferencesTest, WhatCannotBeUnderstoodIsKeptAside) {
  for (const int number : {1, 2}) {
    const QByteArray broken = "<plist><array/></plist>" + QByteArray::number(number);
    Write(broken);
    LinuxApplicationPreferences preferences(path_);
    EXPECT_EQ(preferences.Value(kKey), std::nullopt);
    ASSERT_TRUE(preferences.Synchronize()) << "nothing to store";
    EXPECT_EQ(Contents(path_), broken);
    preferences.SetValue(kKey, number);
    ASSERT_TRUE(preferences.Synchronize());
    EXPECT_EQ(Stored(kKey), QVariant(number));
    EXPECT_EQ(preferences.KeptAside(), path_ + u".broken%1"_s.arg(number));
    EXPECT_EQ(Contents(preferences.KeptAside()), broken);
  }
  EXPECT_EQ(Files().size(), 3) << "nothing else";
}

TEST_F(ApplicationPreferencesTest, WhatALinkLeadsToIsKeptAside) {
  const QString real = folder_.filePath(u"real"_s);
  Write("no preferences");
  ASSERT_TRUE(QFile::rename(path_, real) && QFile::link(real, path_));
  LinuxApplicationPreferences preferences(path_);
  preferences.SetValue(kKey, 1);
  ASSERT_TRUE(preferences.Synchronize());
  EXPECT_EQ(Contents(preferences.KeptAside()), "no preferences");
  EXPECT_EQ(Stored(kKey), QVariant(1));
  EXPECT_TRUE(QFileInfo(path_).isSymLink());
}

// The home folder of whoever became root may be in the environment still.
TEST_F(ApplicationPreferencesTest, RootStoresNothingInFoldersOfOthers) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  const QString victim = folder_.filePath(u"victim"_s);
  Write("root's");
  ASSERT_TRUE(QFile::rename(path_, victim));
  const QString home = folder_.filePath(u"home"_s);
  ASSERT_TRUE(QDir().mkdir(home) && QFile::link(victim, home + u"/config.plist"_s));
  ASSERT_EQ(chown(home.toUtf8(), test::kAnna, test::kAnna), 0);
  for (const char* name : {"/config.plist", "/new/config.plist"}) {
    LinuxApplicationPreferences preferences(home + QLatin1String(name));
    preferences.SetValue(kKey, 1);
    EXPECT_FALSE(preferences.Synchronize());
    EXPECT_FALSE(preferences.Problem().isEmpty());
    EXPECT_EQ(preferences.Value(kKey), QVariant(1));
  }
  EXPECT_EQ(Contents(victim), "root's");
  EXPECT_EQ(QDir(home).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size(), 1);
}

TEST_F(ApplicationPreferencesTest, WhatCannotBeReadIsLeftAlone) {
  ASSERT_EQ(mkfifo(path_.toUtf8(), 0600), 0);
  LinuxApplicationPreferences preferences(path_);
  preferences.SetValue(kKey, 1);
  EXPECT_FALSE(preferences.Synchronize());
  EXPECT_TRUE(preferences.Problem().contains(path_));
  EXPECT_EQ(preferences.Value(kKey), QVariant(1));
  EXPECT_EQ(Files().size(), 1);
  QFile::remove(path_);
  EXPECT_TRUE(preferences.Synchronize()) << "what was set stays set";
  EXPECT_EQ(preferences.Problem(), QString());
  EXPECT_EQ(Stored(kKey), QVariant(1));
}

TEST_F(ApplicationPreferencesTest, WriteThatFailsLeavesTheOldFile) {
  LinuxApplicationPreferences preferences(path_);
  preferences.SetValue(kKey, u"old"_s);
  ASSERT_TRUE(preferences.Synchronize());
  const QByteArray old = Contents(path_);
  const auto fails = [&](const QVariant& value) {
    preferences.SetValue(kKey, value);
    return !preferences.Synchronize() && !preferences.Problem().isEmpty() &&
           Contents(path_) == old && Files().size() == 1;
  };
  EXPECT_TRUE(fails(QString(QChar(0xD800)))) << "no text";
  // As on a full disk: no file may grow beyond 100 bytes.
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limited{100, RLIM_INFINITY};
  const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &limited);
  const bool failsWhenFull = fails(u"new"_s);
  setrlimit(RLIMIT_FSIZE, &unlimited);
  EXPECT_TRUE(failsWhenFull);
  // A folder in which this user may make no file.
  ASSERT_EQ(chmod(folder_.path().toUtf8(), 0555), 0);
  const uid_t user = getuid() == 0 ? test::kAnna : getuid();
  test::AsUser(user, [&] { EXPECT_TRUE(fails(u"new"_s)); });
  ASSERT_EQ(chmod(folder_.path().toUtf8(), 0755), 0);
  EXPECT_TRUE(preferences.Synchronize());
  EXPECT_EQ(Stored(kKey), QVariant(u"new"_s));
}

}  // namespace
}  // namespace vardell
