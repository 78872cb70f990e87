// The real vardellctl on a machine of the test's.
#include <gtest/gtest.h>

#include <QJsonArray>

#include "tests/control/RunVardellctl.h"
#include "tests/platform/Installation.h"

namespace vardell::test {
namespace {

class AppsTest : public testing::Test {
 protected:
  AppsTest() {
    installed_.AddSystemEntry("org.chess", "true",
                              "Name[de]=Schach\nName[fr]=\xc3\x89"
                              "checs");
    installed_.AddSystemEntry("org.evil", "true",
                              "Name[de]=Rot\x1b[31m\nName[fr]=\xe2\x80\xae"
                              "x");
    installed_.AddSystemEntry("org.quiet", "true", "NoDisplay=true");
    installed_.AddSystemEntry("org.deleted", "true", "Hidden=true");
    installed_.AddSystemEntry("org.broken", "");
    installed_.CopyProgram("home/ab", "/bin/true");
    installed_.Write(installed_.Path("home/text"), "text");
    installed_.Write(installed_.Path("home/out.desktop"), "[Desktop Entry]\n");
  }
  // "@" in the words stands for the machine's folder.
  Outcome Apps(const char* words, const QString& language = u"de"_s) {
    QStringList all = Words(words);
    for (QString& word : all) word.replace(u'@', installed_.Path("").chopped(1));
    return RunAt(u"/none"_s, QStringList{u"apps"_s} + all,
                 {{u"LANGUAGE"_s, language}, {u"XDG_CONFIG_HOME"_s, u"/config"_s}});
  }
  QStringList Identifiers() {
    QStringList identifiers;
    const auto json = QJsonDocument::fromJson(Apps("list|--json").output.toUtf8());
    for (const QJsonValue row : json[u"applications"_s].toArray())
      identifiers.push_back(row[u"identifier"_s].toString());
    return identifiers;
  }
  QString ConfigPath() const { return installed_.Path("config/com.brenwick.vardell5.plist"); }

  Installation installed_;
};

TEST_F(AppsTest, ListIsInTheLanguageOfItsScanTheComputerFirst) {
  const Outcome german = Apps("list");
  EXPECT_EQ(german.status, 0) << qPrintable(german.error);
  const QStringList lines = german.output.split(u'\n');
  ASSERT_EQ(lines.size(), 5) << qPrintable(german.output);
  EXPECT_EQ(lines[0].simplified(), u"NAME IDENTIFIER LOCATION"_s);
  EXPECT_TRUE(lines[1].simplified().endsWith(u" computer -"_s));
  EXPECT_EQ(lines[2].simplified(),
            u"Rot\uFFFD[31m org.evil "_s + installed_.SystemFolder() + u"/org.evil.desktop"_s);
  EXPECT_TRUE(lines[3].startsWith(u"Schach"_s));
  EXPECT_FALSE(Apps("list", u"fr"_s).output.contains(u"Échecs"_s));
  installed_.AddSystemEntry("org.new", "true");
  EXPECT_EQ(Identifiers().size(), 3);
  EXPECT_TRUE(Apps("list|--rescan", u"fr"_s).output.contains(u"Échecs"_s));
  EXPECT_EQ(Identifiers().size(), 4);
  EXPECT_EQ(Identifiers()[0], u"com.apple.loginwindow"_s);
}

TEST_F(AppsTest, AddSaysWhatWasAddedAndKeepsItOverScans) {
  const Outcome bare = Apps("add|@/home/ab");
  EXPECT_EQ(bare.status, 0) << qPrintable(bare.error);
  EXPECT_EQ(bare.output, u"Added ab, identifier 'com.brenwick.fakeID.ab  '.\n"_s);
  const Outcome quiet = Apps("add|@/usr/share/applications/org.quiet.desktop|--json");
  const auto json = QJsonDocument::fromJson(quiet.output.toUtf8());
  EXPECT_EQ(json[u"identifier"_s], u"org.quiet"_s);
  EXPECT_EQ(json[u"added"_s], true);
  const Outcome again = Apps("add|@/usr/share/applications/org.chess.desktop");
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.output, u"Schach is already listed, identifier org.chess.\n"_s);
  EXPECT_EQ(Apps("list|--rescan").status, 0);
  const QStringList identifiers = Identifiers();
  EXPECT_EQ(identifiers.size(), 5);
  EXPECT_TRUE(identifiers.contains(u"org.quiet"_s));
  EXPECT_TRUE(identifiers.contains(u"com.brenwick.fakeID.ab  "_s));
}

// ---- failures ----

TEST_F(AppsTest, AddSaysWhatIsWrongAndChangesNothing) {
  EXPECT_EQ(Apps("list").status, 0);
  QFile config(ConfigPath());
  ASSERT_TRUE(config.open(QIODevice::ReadOnly));
  const QByteArray before = config.readAll();
  const struct {
    const char* path;
    const char* says;
  } rows[] = {{"@/home/none", "there is no such file"},
              {"@/home", "it is a folder"},
              {"@/home/text", "it is not executable"},
              {"@/home/out.desktop", "not in a folder of applications"},
              {"@/usr/share/applications/org.deleted.desktop", "it counts as deleted"},
              {"@/usr/share/applications/org.broken.desktop", "a Type, a Name and an Exec"}};
  for (const auto& row : rows) {
    const Outcome outcome = Apps((QByteArray("add|") + row.path).constData());
    EXPECT_EQ(outcome.status, 1) << row.path;
    EXPECT_EQ(outcome.output, QString());
    EXPECT_TRUE(outcome.error.contains(QString::fromUtf8(row.says))) << qPrintable(outcome.error);
  }
  config.seek(0);
  EXPECT_EQ(config.readAll(), before);
}

TEST_F(AppsTest, ListThatCannotBeUnderstoodOrKeptIsShownAllTheSame) {
  QDir().mkpath(installed_.Path("config"));
  installed_.Write(ConfigPath(), "<plist>");
  const Outcome aside = Apps("list");
  EXPECT_EQ(aside.status, 0);
  EXPECT_TRUE(aside.output.contains(u"Schach"_s));
  EXPECT_TRUE(aside.error.contains(ConfigPath() + u".broken1"_s)) << qPrintable(aside.error);
  EXPECT_EQ(Apps("list").error, QString());
  QFile::remove(ConfigPath());
  ASSERT_EQ(mkfifo(ConfigPath().toUtf8().constData(), 0600), 0);
  const Outcome unkept = Apps("list");
  EXPECT_EQ(unkept.status, 0);
  EXPECT_TRUE(unkept.output.contains(u"Schach"_s));
  EXPECT_TRUE(unkept.error.contains(u"could not be kept"_s)) << qPrintable(unkept.error);
  const Outcome add = Apps("add|@/home/ab");
  EXPECT_EQ(add.status, 1);
  EXPECT_TRUE(add.error.contains(u"cannot be read"_s)) << qPrintable(add.error);
}

TEST_F(AppsTest, RunningOfNobodySaysWhy) {
  const Outcome unknown = Apps("running|no-such-user");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_TRUE(unknown.error.contains(u"there is no user"_s)) << qPrintable(unknown.error);
}

}  // namespace
}  // namespace vardell::test
