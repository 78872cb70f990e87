#include "platform/linux/LinuxInstalledApplications.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <QCoreApplication>
#include <tuple>

#include "Common Sources/Caps.h"
#include "limits/ApplicationIdentifier.h"
#include "limits/ApplicationsCatalogue.h"
#include "platform/linux/LinuxProcesses.h"
#include "tests/platform/Installation.h"
#include "tests/support/FakeApplicationPreferences.h"
#include "tests/support/FakeSession.h"
#include "tests/support/Program.h"

namespace vardell {
namespace {

using test::Installation;
using namespace Qt::StringLiterals;

// The languages of the person, for as long as this lives.
class Languages {
 public:
  explicit Languages(const char* languages) { setenv("LANGUAGE", languages, 1); }
  ~Languages() { unsetenv("LANGUAGE"); }
};

// "identifier=name" of each row but the computer's, by identifier.
QStringList Catalogue(const QStringList& desktops = {}) {
  LinuxInstalledApplications installed(desktops);
  FakeApplicationPreferences preferences;
  QStringList rows;
  for (const QVariant& row : CopyApplicationsCatalogue(installed, preferences).mid(1)) {
    const QVariantMap map = row.toMap();
    rows.push_back(map[u"Identifier"_s].toString() + u'=' + map[u"Name"_s].toString());
  }
  rows.sort();
  return rows;
}

// The same as GLib sees it.
QStringList CatalogueOfGLib(const QString& root, const std::string& languages) {
  const std::vector<std::string> shares = {
      "/usr/local/share", "/usr/share", "/var/lib/flatpak/exports/share", "/var/lib/snapd/desktop"};
  std::vector<std::string> command{"/usr/bin/python3",
                                   VARDELL_SOURCE_DIR "/tests/platform/OfferedApplications.py"};
  std::string all;
  for (const std::string& share : shares) {
    const std::string path = root.toStdString() + share;
    all += (all.empty() ? "" : ":") + path;
    command.push_back(path + "/applications");
  }
  const test::Finished finished =
      test::Run(command, {.environment = {{"XDG_DATA_DIRS", all},
                                          {"XDG_DATA_HOME", "/nonexistent"},
                                          {"XDG_CURRENT_DESKTOP", "TOYS:OTHER"},
                                          {"LANGUAGE", languages},
                                          {"LC_ALL", "C.UTF-8"},
                                          {"PATH", "/usr/local/bin:/usr/bin:/bin:/usr/games"}}});
  EXPECT_EQ(finished.status, 0) << qPrintable(finished.output);
  QStringList rows = finished.output.split(u'\n', Qt::SkipEmptyParts);
  for (QString& row : rows) row.replace(u'\t', u'=');
  rows.sort();
  return rows;
}

const QStringList kToys = {u"TOYS"_s, u"OTHER"_s};

class InstalledTest : public testing::Test {
 protected:
  QString LocalFolder() const { return installed_.Path("usr/local/share/applications"); }
  void Add(const QString& folder, const QString& file, const QByteArray& text) const {
    QDir().mkpath(QFileInfo(folder + u'/' + file).path());
    installed_.Write(folder + u'/' + file,
                     QByteArray(text).replace('@', installed_.Path("").chopped(1).toUtf8()));
  }
  void Add(const QByteArray& file, const QByteArray& text) const {
    Add(installed_.SystemFolder(), QString::fromUtf8(file), text);
  }

  Installation installed_;
};

const char kEntry[] = "[Desktop Entry]\nType=Application\nName=N\nExec=/bin/true\n";

QByteArray Entry(const char* more) {
  return QByteArray(kEntry) + more;
}

TEST_F(InstalledTest, OffersWhatTheDesktopOffers) {
  installed_.Write(installed_.Path("bin/plain"), "not executable");
  const std::tuple<const char*, QByteArray, bool> rows[] = {
      {"plain", kEntry, true},
      {"terminal", Entry("Terminal=true\n"), true},
      {"by-name", "[Desktop Entry]\nExec=true %U\nName=N\nType=Application\n", true},
      {"quoted", "[Desktop Entry]\nType=Application\nName=N\nExec=\"/bin/true\" \"a b\"\n", true},
      {"tried", Entry("TryExec=true\n"), true},
      {"here", Entry("OnlyShowIn=OTHER;KDE;\n"), true},
      {"shown", Entry("NotShowIn=KDE\nNoDisplay=false\nHidden=false\n"), true},
      {"first-counts", Entry("OnlyShowIn=TOYS;\nNotShowIn=OTHER;\n"), true},
      {"windows", "[Desktop Entry]\r\nType=Application\r\nName=N\r\nExec=/bin/true\r\n", true},
      {"latin", Entry("Comment=\xe9\n"), true},
      {"indented", "\t[Desktop Entry]\n Type=Application\n Name=N\n\tExec = /bin/true\n", true},
      {"commented", "# text\n\n[Desktop Entry]\n#Hidden=true\n" + QByteArray(kEntry).mid(16), true},
      {"elsewhere", Entry("OnlyShowIn=KDE;\n"), false},
      {"not-here", Entry("NotShowIn=TOYS;\n"), false},
      {"hidden", Entry("Hidden=true\n"), false},
      {"hidden-1", Entry("Hidden=1\n"), false},
      {"no-display", Entry("NoDisplay=true\n"), false},
      {"no-try", Entry("TryExec=/no/such\n"), false},
      {"no-program", "[Desktop Entry]\nType=Application\nName=N\nExec=/no/such\n", false},
      {"not-executable", "[Desktop Entry]\nType=Application\nName=N\nExec=@/bin/plain\n", false},
      {"link", "[Desktop Entry]\nType=Link\nName=N\nExec=/bin/true\n", false},
      {"no-group", "Type=Application\nName=N\nExec=/bin/true\n", false},
      {"other-group", "[Other]\nType=Application\nName=N\nExec=/bin/true\n", false},
      {"actions-only", Entry("[Desktop Action new]\nHidden=true\n"), true},
      {"empty", "", false},
      {"zeros", QByteArray(1000, '\0'), false},
  };
  QStringList expected;
  for (const auto& [file, text, isOffered] : rows) {
    Add((QByteArray(file) + ".desktop").constData(), text);
    if (isOffered) expected.push_back(QString::fromUtf8(file) + u"=N"_s);
  }
  expected.sort();
  EXPECT_EQ(Catalogue(kToys), expected);
  EXPECT_EQ(CatalogueOfGLib(installed_.Path("").chopped(1), "C"), expected);
  // GLib offers what has no command, and then cannot start it.
  Add("no-exec.desktop", "[Desktop Entry]\nType=Application\nName=N\n");
  EXPECT_EQ(Catalogue(kToys), expected);
  // Nobody's desktop: an administrator's terminal.
  EXPECT_TRUE(Catalogue().contains(u"elsewhere=N"_s));
}

TEST_F(InstalledTest, WhatIsNoFileOfModestSizeNeitherBlocksNorCounts) {
  Add("huge.desktop", Entry("") + QByteArray(kMaxDesktopEntryBytes, '#'));
  Add("latin.desktop", QByteArray(kEntry).replace("=N", "=\xe9"));
  Add("panel.desktop", Entry("X-GNOME-Autostart-Phase=Panel\n"));
  Add("com.apple.loginwindow.desktop", kEntry);
  Add("folder.desktop/inner.desktop", kEntry);
  Add("name.txt", kEntry);
  const QByteArray system = installed_.SystemFolder().toUtf8();
  ASSERT_EQ(mkfifo((system + "/pipe.desktop").constData(), 0600), 0);
  ASSERT_EQ(symlink("/dev/zero", (system + "/device.desktop").constData()), 0);
  ASSERT_EQ(symlink("nowhere", (system + "/dangling.desktop").constData()), 0);
  ASSERT_EQ(symlink(".", (system + "/loop").constData()), 0);
  ASSERT_EQ(symlink("name.txt", (system + "/linked.desktop").constData()), 0);
  EXPECT_EQ(Catalogue(), (QStringList{u"folder.desktop-inner=N"_s, u"linked=N"_s}));
}

TEST_F(InstalledTest, AFolderOfHigherPrecedenceHidesIdsOfALowerOne) {
  for (const char* id : {"same", "deleted", "broken", "kde-app", "below"})
    Add(QByteArray(id) + ".desktop", kEntry);
  Add("deep/er/three.desktop", kEntry);
  Add("kde/lower.desktop", kEntry);
  Add(LocalFolder(), u"same.desktop"_s, QByteArray(kEntry).replace("=N", "=Local"));
  Add(LocalFolder(), u"deleted.desktop"_s, Entry("Hidden=true\n"));
  Add(LocalFolder(), u"broken.desktop"_s, "nonsense");
  Add(LocalFolder(), u"kde/app.desktop"_s, Entry("NoDisplay=true\n"));
  const QStringList expected = {u"below=N"_s, u"kde-lower=N"_s, u"same=Local"_s};
  EXPECT_EQ(Catalogue(kToys), expected);
  EXPECT_EQ(CatalogueOfGLib(installed_.Path("").chopped(1), "C"), expected);
}

TEST_F(InstalledTest, NamesAreInTheLanguagesOfThePerson) {
  installed_.Write(
      installed_.SystemFolder() + u"/chess.desktop"_s,
      "[Desktop Entry]\nType=Application\nExec=/bin/true\nName=Chess\nName[fr]=Échecs\n"
      "Name[de]=Schach\nName[de_AT]=Sch\\\\ach\\s(A)\nName[sr]=Шах\nName[sr@latin]=Šah\n"
      "Name[zh_CN]=国际象棋\nName[zh_TW]=西洋棋\nName[pt_BR]=Xadrez\n");
  const char* const languages[] = {"C",           "de_DE.UTF-8",    "de_AT",       "fr_FR:de",
                                   "sr_RS@latin", "sr_RS",          "zh_CN.UTF-8", "zh_TW",
                                   "pt_PT",       "nl_NL:pt_BR:de", "en"};
  QStringList all;
  for (const char* language : languages) {
    const Languages set(language);
    EXPECT_EQ(Catalogue(kToys), CatalogueOfGLib(installed_.Path("").chopped(1), language))
        << language;
    all += Catalogue();
  }
  EXPECT_EQ(QSet<QString>(all.begin(), all.end()).size(), 9) << all.join(u'\n').toStdString();
  EXPECT_EQ(all[2], u"chess=Sch\\ach (A)"_s);
}

TEST(InstalledOnThisMachine, IsWhatGLibOffers) {
  for (const char* language : {"C", "de_DE", "fr_FR:de"}) {
    const Languages set(language);
    EXPECT_EQ(Catalogue(kToys), CatalogueOfGLib({}, language)) << language;
  }
}

TEST_F(InstalledTest, SaysWhyAPathIsNoApplication) {
  Add("shown.desktop", kEntry);
  Add("sub/unlisted.desktop", Entry("NoDisplay=true\n"));
  Add("hidden.desktop", Entry("Hidden=true\n"));
  Add("no-exec.desktop", "[Desktop Entry]\nType=Application\nName=N\n");
  Add("no-program.desktop", "[Desktop Entry]\nType=Application\nName=N\nExec=/no/such\n");
  Add("panel.desktop", Entry("X-GNOME-Autostart-Phase=Panel\n"));
  Add("com.brenwick.x.desktop", kEntry);
  installed_.Write(installed_.Path("bin/panel"), "", 0755);
  Add("own.desktop",
      "[Desktop Entry]\nType=Application\nName=N\nExec=@/bin/panel\n"
      "X-GNOME-Autostart-Phase=Panel\n");
  installed_.AddUserEntry("mine", "/bin/true");
  installed_.Write(installed_.Path("home/out.desktop"), kEntry);
  installed_.Write(installed_.Path("home/text"), "text");
  ASSERT_EQ(mkfifo(installed_.Native("home/pipe").constData(), 0777), 0);
  ASSERT_EQ(mkfifo((installed_.SystemFolder() + u"/pipe.desktop"_s).toUtf8(), 0777), 0);
  ASSERT_EQ(symlink((installed_.SystemFolder() + u"/shown.desktop"_s).toUtf8(),
                    installed_.Native("home/linked.desktop")),
            0);
  const QByteArray user = installed_.UserFolder().mid(installed_.Path("").size()).toUtf8();
  // "@" stands for the system's folder.
  const std::pair<QByteArray, std::variant<const char*, NotApplication>> rows[] = {
      {"@shown.desktop", "shown"},
      {"@../applications//sub/./unlisted.desktop", "sub-unlisted"},
      {user + "/mine.desktop", "mine"},
      {"home/linked.desktop", "shown"},
      {"home/none", NotApplication::Missing},
      {"home/text/none", NotApplication::Missing},
      {QByteArray("home/a\0b", 8), NotApplication::Missing},
      {"home", NotApplication::Folder},
      {"home/text", NotApplication::NotExecutable},
      {"home/pipe", NotApplication::NotExecutable},
      {"@pipe.desktop", NotApplication::Unreadable},
      {"@no-exec.desktop", NotApplication::Incomplete},
      {"@hidden.desktop", NotApplication::Hidden},
      {"@no-program.desktop", NotApplication::NoProgram},
      {"home/out.desktop", NotApplication::Elsewhere},
      {"@panel.desktop", NotApplication::SessionPart},
      {"bin/panel", NotApplication::SessionPart},
      {"@com.brenwick.x.desktop", NotApplication::Reserved},
  };
  LinuxInstalledApplications installed{QStringList()};
  for (const auto& [path, expected] : rows) {
    SCOPED_TRACE(path.constData());
    const QString whole = QString::fromUtf8(path).replace(u'@', u"usr/share/applications/"_s);
    const auto result = installed.Application(installed_.Path("") + whole);
    ASSERT_EQ(result.index(), expected.index());
    if (const auto* why = std::get_if<NotApplication>(&result)) {
      EXPECT_EQ(*why, std::get<NotApplication>(expected));
    } else {
      EXPECT_EQ(std::get<ApplicationInfo>(result).identifier,
                QLatin1String(std::get<const char*>(expected)));
    }
  }
}

TEST_F(InstalledTest, IsIdentifiedAsWhenItRuns) {
  const test::CoreApplication application;
  installed_.CopyProgram("bin/listed", "/bin/sleep");
  installed_.CopyProgram("home/bare", "/bin/sleep");
  installed_.CopyProgram("home/coded", "/bin/sleep");
  installed_.AddProgram("home/script", "#!/bin/bash\nread line < @/home/pipe\n");
  installed_.AddProgram("bin/player.py", "#!/usr/bin/python3\nimport time\ntime.sleep(1000)\n");
  ASSERT_EQ(mkfifo(installed_.Native("home/pipe").constData(), 0600), 0);
  const bool isCoded =
      setxattr(installed_.Native("home/coded").constData(), "user.creator", "GAME", 4, 0) == 0;
  installed_.AddSystemEntry("org.listed", "@/bin/listed %U");
  installed_.AddSystemEntry("org.player", "python3 @/bin/player.py");
  const std::pair<const char*, const char*> rows[] = {
      {"bin/listed", "org.listed"},
      {"bin/player.py", "org.player"},
      {"home/bare", "com.brenwick.fakeID.bare"},
      {"home/script", "com.brenwick.fakeID.scri"},
      {"home/coded", isCoded ? "com.brenwick.fakeID.GAME" : "com.brenwick.fakeID.code"},
  };
  LinuxInstalledApplications installed{QStringList()};
  FakeSession session;
  std::vector<pid_t> owners;
  LinuxProcesses processes(session, {[&owners] { return owners; }, {}});
  for (const auto& [file, identifier] : rows) {
    SCOPED_TRACE(file);
    const test::Program program({installed_.Native(file).toStdString(), "1000"}, {});
    owners = {program.pid()};
    std::optional<ApplicationInfo> running;
    EXPECT_TRUE(test::WaitUntil([&, wanted = QLatin1String(identifier)] {
      (void)processes.RunningApplications();
      const auto stat = ReadProcessStat(program.pid());
      running = processes.Application({program.pid(), stat ? stat->started : 0});
      return running && MakeApplicationIdentifier(*running) == wanted;
    }));
    const auto found = installed.Application(installed_.Path(file));
    ASSERT_TRUE(running && std::holds_alternative<ApplicationInfo>(found));
    const auto& info = std::get<ApplicationInfo>(found);
    EXPECT_EQ(MakeApplicationIdentifier(info), MakeApplicationIdentifier(*running));
    EXPECT_EQ(info.path, running->path);
    EXPECT_EQ(info.displayName, running->displayName);
  }
}

TEST_F(InstalledTest, MachineIsCalledAsItsOwnerCallsIt) {
  LinuxInstalledApplications installed{QStringList()};
  EXPECT_EQ(installed.MachineName(), QSysInfo::machineHostName());
  QDir().mkpath(installed_.Path("etc"));
  installed_.Write(installed_.Path("etc/machine-info"),
                   "ICON_NAME=computer\nPRETTY_HOSTNAME=\"Anna's \\\"toy\\\" é\"\n");
  EXPECT_EQ(installed.MachineName(), u"Anna's \"toy\" é"_s);
}

}  // namespace
}  // namespace vardell
