// The real vardellctl and a settings file under a folder of the test's own.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include "Common Sources/PropertyListFiles.h"
#include "platform/Preferences.h"
#include "tests/support/KilledAt.h"
#include "tests/support/OtherUsers.h"
#include "tests/support/Program.h"

namespace vardell::test {
namespace {

using namespace Qt::StringLiterals;

class Settings : public testing::Test {
 protected:
  Settings() {
    qputenv("VARDELL_TEST_ROOT", root_.path().toUtf8());
    QFile::setPermissions(root_.path(),
                          QFile::permissions(root_.path()) | QFile::ReadOther | QFile::ExeOther);
  }
  ~Settings() override { qunsetenv("VARDELL_TEST_ROOT"); }

  static std::vector<std::string> Words(std::vector<std::string> words) {
    words.insert(words.begin(), {VARDELL_BIN_DIR "/vardellctl", "settings"});
    return words;
  }
  static Finished Vardellctl(const std::vector<std::string>& words, Program::Options options = {}) {
    return test::Run(Words(words), std::move(options));
  }
  // After these commands of a shell.
  static Finished VardellctlAfter(const std::string& shell, const std::vector<std::string>& words) {
    std::vector<std::string> command{"/bin/bash", "-c", shell + "; exec \"$@\"", "bash"};
    for (const std::string& word : Words(words)) command.push_back(word);
    return test::Run(command, {});
  }

  QString path(const char* ending = "") const {
    return root_.path() + QLatin1String(kSystemPreferencesPath) + QLatin1String(ending);
  }
  QVariantMap Stored() const {
    return ReadPropertyListFromPath(path()).value_or(QVariant()).toMap();
  }
  void Store(const QByteArray& bytes) const {
    QDir().mkpath(QFileInfo(path()).path());
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
  }
  void Store(const QVariantMap& settings) const {
    QDir().mkpath(QFileInfo(path()).path());
    ASSERT_EQ(WritePropertyListToPath(settings, path(), true), 0);
  }
  QByteArray Bytes() const {
    QFile file(path());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
  }

  QTemporaryDir root_;
};

TEST_F(Settings, AreStoredAsAgentsReadThemAndWhatElseTheFileHoldsStays) {
  const Finished set = VardellctlAfter(
      "umask 077", {"set", "Last Minute Credit=off", "Auto Hide Alerts=YES", "Play Alerts Sound=1",
                    "Don't fade screen=true", "Show Lock Badge=0", "Configuration=retry",
                    "Server= [2001:db8::1]:40001", "Non-watched account=root"});
  EXPECT_EQ(set.status, 0) << qPrintable(set.output);
  const QVariantMap stored = Stored();
  EXPECT_EQ(stored, (QVariantMap{{u"Last Minute Credit"_s, u"0"_s},
                                 {u"Auto Hide Alerts"_s, u"1"_s},
                                 {u"Play Alerts Sound"_s, u"1"_s},
                                 {u"Don't fade screen"_s, u"1"_s},
                                 {u"Show Lock Badge"_s, u"0"_s},
                                 {u"Configuration"_s, 2LL},
                                 {u"Server"_s, u"[2001:db8::1]:40001"_s},
                                 {u"Non-watched account"_s, u"root"_s}}));
  EXPECT_EQ(stored[u"Play Alerts Sound"_s].typeId(), QMetaType::QString);
  // Whatever root's umask is, the agents of all users read it.
  const Finished seen = Vardellctl({"show"}, {.uid = kAnna});
  EXPECT_TRUE(seen.output.contains(u"retry"_s)) << qPrintable(seen.output);

  Store(QVariantMap{{u"Of others"_s, QVariantList{1LL}}, {u"Server"_s, u"a:1"_s}});
  EXPECT_EQ(Vardellctl({"set", "Configuration=0"}).status, 0);
  EXPECT_EQ(Vardellctl({"unset", "Server"}).status, 0);
  EXPECT_EQ(Stored(),
            (QVariantMap{{u"Of others"_s, QVariantList{1LL}}, {u"Configuration"_s, 0LL}}));
}

TEST_F(Settings, AreShownAsAnAgentTakesThem) {
  Store(QVariantMap{{u"Play Alerts Sound"_s, true},  // no string
                    {u"Last Minute Credit"_s, u"0"_s},
                    {u"Configuration"_s, 300LL},
                    {u"Non-watched account"_s, u"mother\u202e"_s},
                    {u"Of others"_s, QVariantList{1LL}}});
  const Finished shown = Vardellctl({"show"});
  EXPECT_EQ(shown.status, 0);
  for (const auto& line :
       {u"Last Minute Credit   off"_s, u"Auto Hide Alerts     off (default)"_s,
        u"Play Alerts Sound    off (default)       warnings make no sound; \"true\" is stored"_s,
        u"Configuration        carry-on (default)"_s, u"Non-watched account  mother\uFFFD"_s,
        u"Of others            a list"_s}) {
    EXPECT_TRUE(shown.output.contains(line)) << qPrintable(line) << '\n'
                                             << qPrintable(shown.output);
  }
  const QJsonObject json =
      QJsonDocument::fromJson(Vardellctl({"show", "--json"}).output.toUtf8()).object();
  EXPECT_EQ(json[u"settings"_s].toArray().size(), 8);
  EXPECT_EQ(json[u"unknown"_s], (QJsonObject{{u"Of others"_s, QJsonArray{1}}}));
}

TEST_F(Settings, AMistakeChangesNothing) {
  const struct {
    std::vector<std::string> words;
    const char* says;
  } rows[] = {
      {{"set", "Configuration=lock", "Play Alerts Sound=loud"}, "it takes on or off"},
      {{"set", "Configuration=3"}, "carry-on (or 0), lock (or 1) or retry (or 2)"},
      {{"set", "Configuration=256"}, "it takes carry-on"},
      {{"set", "Server=host"}, "it takes host:port"},
      {{"set", "Server=2001:db8::1:40001"}, "IPv6 address in brackets"},
      {{"set", "Server=host:99999"}, "it takes host:port"},
      {{"set", "Non-watched account="}, "the login name of an account"},
      {{"set", "Non-watched account=my mother"}, "the login name of an account"},
      {{"set", "play alerts sound=on"}, "there is no setting \"play alerts sound\""},
      {{"set", "Configuration=0", "Configuration=1"}, "is given twice"},
      {{"unset", "Server", "Bedtime"}, "there is no setting \"Bedtime\""},
  };
  for (const bool isThere : {false, true}) {
    if (isThere) Store(QVariantMap{{u"Server"_s, u"a:1"_s}});
    const QByteArray before = Bytes();
    for (const auto& row : rows) {
      const Finished refused = Vardellctl(row.words);
      EXPECT_EQ(refused.status, 2) << row.words[1];
      EXPECT_TRUE(refused.output.contains(QString::fromUtf8(row.says)))
          << qPrintable(refused.output);
      EXPECT_EQ(Bytes(), before) << row.words[1];
    }
  }
}

TEST_F(Settings, WhatCannotBeReadOrChangedIsLeftAloneWithAClearError) {
  Store("<plist><array/></plist>");
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"show"}, {"set", "Configuration=0"}, {"unset", "Server"}}) {
    const Finished refused = Vardellctl(words);
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(refused.output.contains(path() + u" holds no settings"_s));
    EXPECT_TRUE(refused.output.contains(u"Move it away"_s));
  }
  EXPECT_EQ(Bytes(), "<plist><array/></plist>");
  const Finished unprivileged = Vardellctl({"set", "Configuration=0"}, {.uid = kAnna});
  EXPECT_EQ(unprivileged.status, 1);
  EXPECT_TRUE(unprivileged.output.contains(u"Only root may change them."_s))
      << qPrintable(unprivileged.output);
}

TEST_F(Settings, AnAccountThatTheMachineDoesNotHaveIsTakenWithAWarning) {
  const Finished set = Vardellctl({"set", "Non-watched account=nobody-of-that-name"});
  EXPECT_EQ(set.status, 0);
  EXPECT_TRUE(set.output.contains(u"no account \"nobody-of-that-name\""_s));
  EXPECT_TRUE(Stored().contains(u"Non-watched account"_s));
  EXPECT_FALSE(Vardellctl({"set", "Non-watched account=ROOT"}).output.contains(u"no account"_s));
}

TEST_F(Settings, TwoAtOnceLoseNoChange) {
  const QString pairs =
      u"Last Minute Credit=off|Auto Hide Alerts=on|Play Alerts Sound=on|"
      "Don't fade screen=on|Show Lock Badge=on|Configuration=1|Server=a:1|"
      "Non-watched account=root"_s;
  for (int round = 0; round < 3; ++round) {
    QFile::remove(path());
    std::vector<Program> all;
    for (const QString& pair : pairs.split(u'|')) {
      all.emplace_back(Words({"set", pair.toStdString()}), Program::Options{.output = "/dev/null"});
    }
    for (Program& one : all) EXPECT_EQ(one.Wait(), 0);
    EXPECT_EQ(Stored().size(), 8);
  }
}

// ---- what goes wrong in the middle ----

TEST_F(Settings, AFullDiskLeavesThemAsTheyWere) {
  Store(QVariantMap{{u"Configuration"_s, 1LL}});
  const QByteArray before = Bytes();
  // The copy has room, the longer new file has not, as the writing itself does not tell.
  ASSERT_LT(before.size(), 1024);
  const std::string account = "Non-watched account=" + std::string(900, 'a');
  const Finished set = VardellctlAfter("trap '' XFSZ; ulimit -f 1", {"set", account});
  EXPECT_EQ(set.status, 1);
  EXPECT_TRUE(set.output.contains(u"They are as they were."_s)) << qPrintable(set.output);
  EXPECT_EQ(Bytes(), before);
  EXPECT_EQ(QDir(QFileInfo(path()).path()).entryList(QDir::Files | QDir::Hidden),
            (QStringList{u"com.brenwick.vardell5.plist"_s, u"com.brenwick.vardell5.plist.lock"_s}));
}

TEST_F(Settings, KilledAtAnyMomentTheyAreTheOldOrTheNew) {
  const QVariantMap old{{u"Configuration"_s, 1LL}, {u"Of others"_s, u"x"_s}};
  QVariantMap changed = old;
  changed[u"Configuration"_s] = 2LL;
  int olds = 0;
  int news = 0;
  int repaired = 0;
  int n = 1;
  for (;; ++n) {
    Store(old);
    int status = 0;
    if (!RunKilledAt(n, Words({"set", "Configuration=retry"}), &status)) {
      EXPECT_EQ(status, 0);
      break;
    }
    repaired += Stored().isEmpty() ? 1 : 0;
    const Finished shown = Vardellctl({"show"});
    ASSERT_EQ(shown.status, 0) << n << qPrintable(shown.output);
    ASSERT_TRUE(Stored() == old || Stored() == changed) << n;
    ++(Stored() == old ? olds : news);
  }
  EXPECT_GE(olds, 5);
  EXPECT_GE(news, 1);
  EXPECT_GE(repaired, 1);  // the moment without a file has been met
  EXPECT_EQ(Stored(), changed);
}

}  // namespace
}  // namespace vardell::test
