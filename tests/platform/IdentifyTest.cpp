#include "platform/linux/Identify.h"

#include <gtest/gtest.h>

#include "tests/platform/Installation.h"

namespace vardell {
namespace {

// "@" stands for the test root, "~" for the home folder.
class IdentifyTest : public testing::Test {
 protected:
  IdentifyTest() {
    for (const char* program : {"bin/chess", "bin/office", "bin/wm", "bin/my-app", "bin/launcher",
                                "bin/a-game-with-a-long-name", "home/homemade", "home/copy"}) {
      installed_.AddProgram(program);
    }
    installed_.AddProgram("bin/browser", "#!/bin/sh\nexec @/lib/browser/browser\n");
    installed_.AddProgram("bin/painter.py", "#!/usr/bin/python3\n");
    installed_.AddProgram("bin/panel.py", "#!/usr/bin/python3\n");
    installed_.AddSystemEntry("chess", "@/bin/chess");
    installed_.AddSystemEntry("office-writer", "@/bin/office --writer %U");
    installed_.AddSystemEntry("office-calc", "@/bin/office --calc %U");
    installed_.AddSystemEntry("org.web.Browser", "@/bin/browser %U");
    installed_.AddSystemEntry("painter", "python3 -B @/bin/painter.py");
    installed_.AddSystemEntry("python3.11", "/usr/bin/python3");
    installed_.AddSystemEntry("wm", "@/bin/wm", "X-GNOME-Autostart-Phase=WindowManager");
    installed_.AddSystemEntry("panel.py", "@/bin/panel.py", "X-GNOME-Autostart-Phase=Panel");
    installed_.AddSystemEntry("org.flat.App", "flatpak run --command=x org.flat.App");
    installed_.AddSystemEntry("player_player", "env A=B snap run player");
    installed_.AddSystemEntry("my-app", "env LANG=C -u X @/bin/my-app");
    installed_.AddSystemEntry("classy", "@/bin/launcher", "StartupWMClass=Classy");
    installed_.AddSystemEntry("longname", "@/bin/a-game-with-a-long-name");
    installed_.AddUserEntry("homemade", "@/home/homemade");
    installed_.AddUserEntry("calculator", "@/home/copy");
    installed_.AddUserEntry("stolen", "@/bin/chess", "StartupWMClass=Classy");
    installed_.AddUserEntry("panel", "@/bin/my-app", "X-GNOME-Autostart-Phase=Panel");
    entries_.Update();
  }

  // Words such as "exe=/bin/sh arg=x". Files are those of the paths unless they are given.
  ProcessFacts Facts(QByteArray text) const {
    text.replace('~', getpwuid(getuid())->pw_dir).replace("@/", installed_.Native(""));
    QMultiHash<QByteArray, QByteArray> given;
    ProcessFacts facts;
    for (const QByteArray& word : text.split(' ')) {
      const QByteArray key = word.left(word.indexOf('='));
      const QByteArray value = word.mid(key.size() + 1);
      given.insert(key, value);
      if (key == "arg") facts.arguments.push_back(value);
      if (key == "class") facts.windowClasses.push_back(value);
    }
    facts.pid = 4711;
    facts.name = given.value("name");
    facts.executable = given.value("exe");
    facts.executableFile = IdOfFile(given.value("file", facts.executable));
    facts.script = given.value("script");
    facts.scriptFile = IdOfFile(given.value("scriptfile", facts.script));
    facts.cgroup = given.value("unit", "/");
    facts.flatpak = given.value("flatpak");
    facts.launchEntry = given.value("launched");
    return facts;
  }
  std::string IdOf(const QByteArray& facts) const {
    const Identity identity = Identify(Facts(facts), entries_);
    return identity.entry ? identity.entry->id.toStdString() : "";
  }

  test::Installation installed_;
  DesktopEntries entries_{ApplicationFolders(QString::fromUtf8(getpwuid(getuid())->pw_dir))};
};

constexpr const char* kRows[][3] = {
    {"its executable names it", "exe=@/bin/chess", "chess"},
    {"an interpreter alone is nobody", "exe=/usr/bin/python3.11", ""},
    {"a script before its interpreter", "exe=/bin/python3.11 script=@/bin/painter.py", "painter"},
    {"a window manager is no application", "exe=@/bin/wm unit=/app-chess-1.scope", ""},
    {"a panel's script neither", "exe=/usr/bin/python3 script=@/bin/panel.py", ""},
    {"the user cannot make a program part of the session", "exe=@/bin/my-app", "my-app"},
    {"arguments tell siblings apart", "exe=@/bin/office arg=x arg=--calc", "office-calc"},
    {"and so they do for the other", "exe=@/bin/office arg=x arg=--writer", "office-writer"},

    {"mounted over the window manager", "exe=@/bin/wm file=@/bin/chess", "chess"},
    {"mounted over another program", "exe=@/bin/my-app file=@/bin/chess", "chess"},
    {"mounted over an interpreter", "exe=/x/python3 file=@/bin/chess", "chess"},
    {"script mounted over a panel's",
     "exe=/x/python3 script=@/bin/panel.py scriptfile=@/bin/painter.py", "painter"},
    {"window manager, known by its path alone", "exe=@/bin/wm file=/none", ""},
    {"program, known by its path alone", "exe=@/bin/chess file=/none", "chess"},
    {"another file, and a unit", "exe=@/bin/chess file=/bin/true unit=/app-office-calc-1.scope",
     "office-calc"},

    {"unit of a scope", "unit=/user.slice/app-chess-12.scope", "chess"},
    {"unit with a launcher", "unit=/app.slice/app-gnome-chess-9.scope", "chess"},
    {"unit with an escaped dash", "unit=/app-gnome-my\\x2dapp-3.scope", "my-app"},
    {"unit with a dash as it is", "unit=/app-my-app-3.scope", "my-app"},
    {"unit of a service", "unit=/app-gnome-chess@autostart.service", "chess"},
    {"group below the unit", "unit=/app-chess-1.scope/tabs/7", "chess"},
    {"unit of a sandbox", "unit=/app-flatpak-org.flat.App-77.scope", "org.flat.App"},
    {"unit of a snap", "unit=/snap.player.player-0a1b2c3d-0a1b-0a1b-0a1b-0a1b2c3d4e5f.scope",
     "player_player"},
    {"older unit of a snap", "unit=/snap.player.player.0a1b2c3d.scope", "player_player"},
    {"unit of something that is not installed", "unit=/app-none-12.scope", ""},
    {"a slice is no unit of an application", "unit=/app-chess.slice/x.scope", ""},
    {"unit before the user's own", "exe=@/home/homemade unit=/app-chess-1.scope", "chess"},
    {"trusted before a chosen unit", "exe=@/bin/chess unit=/app-gnome-calculator-1.scope", "chess"},
    {"a trusted script before a chosen unit",
     "exe=/bin/python3 script=@/bin/painter.py unit=/app-gnome-calculator-1.scope", "painter"},

    {"a sandbox's own word", "exe=/app/bin/x flatpak=org.flat.App", "org.flat.App"},
    {"a trusted executable before it", "exe=@/bin/chess flatpak=org.flat.App", "chess"},
    {"the user's own executable", "exe=@/home/homemade", "homemade"},
    {"a copy keeps its base name", "exe=/elsewhere/chess", "chess"},
    {"started by a wrapper of its name", "exe=/lib/browser/browser", "org.web.Browser"},
    {"the wrapper itself", "exe=/usr/bin/dash script=@/bin/browser", "org.web.Browser"},
    {"the launcher's word", "launched=@~/.local/share/applications/homemade.desktop", "homemade"},
    {"the base name before it",
     "exe=/x/chess launched=@~/.local/share/applications/homemade.desktop", "chess"},
    {"the class of its window, the installed entry's", "exe=@/bin/none class=cLASSY", "classy"},
    {"kept from the user", "name=chess arg=/x/chess unit=/app-calculator-1.scope", "chess"},
    {"with a name that the kernel cuts", "name=a-game-with-a-l arg=a-game-with-a-long-name",
     "longname"},
    {"a first argument alone proves nothing", "name=other arg=/x/chess", ""},
};

TEST_F(IdentifyTest, GoesByWhatCannotBeChosenFirst) {
  for (const auto& [behaviour, facts, id] : kRows) EXPECT_EQ(IdOf(facts), id) << behaviour;
}

TEST_F(IdentifyTest, FollowsAFileToAnotherNameAndANameToAnotherFile) {
  const QByteArray chess = installed_.Native("bin/chess");
  ASSERT_EQ(link(chess.constData(), installed_.Native("home/innocent").constData()), 0);
  EXPECT_EQ(IdOf("exe=@/home/innocent unit=/app-calculator-1.scope"), "chess");
  // An update that leaves the entry alone.
  const QByteArray update = installed_.AddProgram("bin/chess.new");
  ASSERT_EQ(rename(update.constData(), chess.constData()), 0);
  EXPECT_EQ(IdOf("exe=@/bin/chess unit=/app-calculator-1.scope"), "chess");

  // Only a shell's script hands on.
  EXPECT_TRUE(Identify(Facts("exe=/bin/sh script=@/bin/browser"), entries_).isWrapper);
  EXPECT_FALSE(Identify(Facts("exe=/bin/python3 script=@/bin/painter.py"), entries_).isWrapper);
}

TEST(SessionOfCgroup, IsOnlyTheSessionManagersScope) {
  EXPECT_EQ(SessionOfCgroup("/user.slice/user-1000.slice/session-4.scope"), "4");
  EXPECT_EQ(SessionOfCgroup("/user.slice/user-1000.slice/session-c2.scope/below"), "c2");
  EXPECT_EQ(SessionOfCgroup("/user.slice/user-1000.slice/user@1000.service/session-4.scope"), "");
  EXPECT_EQ(SessionOfCgroup("/"), "");
}

}  // namespace
}  // namespace vardell
