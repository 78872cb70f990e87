#include "platform/linux/Identify.h"

#include <gtest/gtest.h>

#include <ostream>

#include "tests/platform/Installation.h"

namespace vardell {
namespace {

using test::Installation;

// "@" stands for the test root. Files are told apart by path and by what they are.
struct Row {
  const char* behaviour;
  const char* executable;
  std::vector<const char*> arguments;
  const char* script = "";
  const char* cgroup = "/";
  const char* expected = "";
  const char* flatpak = "";
  const char* launchEntry = "";
  const char* windowClass = "";
  const char* name = "";
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.behaviour;
}

class IdentifyTest : public testing::TestWithParam<Row> {
 protected:
  IdentifyTest() {
    for (const char* program : {"bin/chess", "bin/office", "bin/wm", "bin/my-app", "bin/launcher",
                                "bin/a-game-with-a-long-name", "home/homemade", "home/copy"}) {
      installed_.AddProgram(program);
    }
    installed_.AddProgram("bin/browser", "#!/bin/sh\nexec @/lib/browser/browser\n");
    installed_.AddProgram("bin/painter.py", "#!/usr/bin/python3\n");
    installed_.AddSystemEntry("chess", "@/bin/chess");
    installed_.AddSystemEntry("office-writer", "@/bin/office --writer %U");
    installed_.AddSystemEntry("office-calc", "@/bin/office --calc %U");
    installed_.AddSystemEntry("org.web.Browser", "@/bin/browser %U");
    installed_.AddSystemEntry("painter", "python3 -B @/bin/painter.py");
    installed_.AddSystemEntry("python3.11", "/usr/bin/python3");
    installed_.AddSystemEntry("wm", "@/bin/wm", "X-GNOME-Autostart-Phase=WindowManager");
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

  QByteArray Expand(const char* text) const {
    return QByteArray(text)
        .replace('~', getpwuid(getuid())->pw_dir)
        .replace('@', installed_.Native("").chopped(1));
  }
  ProcessFacts Facts(const Row& row) const {
    ProcessFacts facts;
    facts.pid = 4711;
    facts.name = row.name;
    facts.executable = Expand(row.executable);
    facts.executableFile = IdOfFile(facts.executable);
    for (const char* word : row.arguments) facts.arguments.push_back(Expand(word));
    facts.script = Expand(row.script);
    facts.scriptFile = IdOfFile(facts.script);
    facts.cgroup = row.cgroup;
    facts.flatpak = row.flatpak;
    facts.launchEntry = Expand(row.launchEntry);
    if (*row.windowClass) facts.windowClasses = {row.windowClass};
    return facts;
  }
  QString IdOf(const ProcessFacts& facts) const {
    const Identity identity = Identify(facts, entries_);
    return identity.entry ? identity.entry->id : QString();
  }

  Installation installed_;
  DesktopEntries entries_{ApplicationFolders(QString::fromUtf8(getpwuid(getuid())->pw_dir))};
};

TEST_P(IdentifyTest, Gives) {
  EXPECT_EQ(IdOf(Facts(GetParam())), QString::fromUtf8(GetParam().expected));
}

const Row kRows[] = {
    {"its executable names it", "@/bin/chess", {"chess"}, "", "/", "chess"},
    {"nothing known of it", "@/bin/none", {"none"}, "", "/", ""},
    {"an interpreter alone is nobody", "/usr/bin/python3.11", {"python3"}, "", "/", ""},
    {"a shell without a script is nobody", "/bin/sh", {"sh"}, "", "/", ""},
    {"a script before its interpreter",
     "/usr/bin/python3.11",
     {"python3"},
     "@/bin/painter.py",
     "/",
     "painter"},
    {"a window manager is no application", "@/bin/wm", {"wm"}, "", "/app-chess-1.scope", ""},
    {"the user cannot make a program part of the session",
     "@/bin/my-app",
     {"x"},
     "",
     "/",
     "my-app"},
    {"arguments tell siblings apart", "@/bin/office", {"office", "--calc"}, "", "/", "office-calc"},
    {"and so they do for the other",
     "@/bin/office",
     {"office", "--writer"},
     "",
     "/",
     "office-writer"},

    {"unit of a scope", "@/bin/none", {}, "", "/user.slice/app-chess-12.scope", "chess"},
    {"unit with a launcher", "@/bin/none", {}, "", "/app.slice/app-gnome-chess-9.scope", "chess"},
    {"unit with an escaped dash", "@/bin/none", {}, "", "/app-gnome-my\\x2dapp-3.scope", "my-app"},
    {"unit with a dash as it is", "@/bin/none", {}, "", "/app-my-app-3.scope", "my-app"},
    {"unit of a service", "@/bin/none", {}, "", "/app-gnome-chess@autostart.service", "chess"},
    {"group below the unit", "@/bin/none", {}, "", "/app-chess-1.scope/tabs/7", "chess"},
    {"unit of a sandbox",
     "@/bin/none",
     {},
     "",
     "/app-flatpak-org.flat.App-77.scope",
     "org.flat.App"},
    {"unit of a snap",
     "@/bin/none",
     {},
     "",
     "/snap.player.player-0a1b2c3d-0a1b-0a1b-0a1b-0a1b2c3d4e5f.scope",
     "player_player"},
    {"older unit of a snap",
     "@/bin/none",
     {},
     "",
     "/snap.player.player.0a1b2c3d.scope",
     "player_player"},
    {"unit of something that is not installed", "@/bin/none", {}, "", "/app-none-12.scope", ""},
    {"a slice is no unit of an application", "@/bin/none", {}, "", "/app-chess.slice/x.scope", ""},
    {"unit before the user's own executable",
     "@/home/homemade",
     {},
     "",
     "/app-chess-1.scope",
     "chess"},
    {"a trusted executable before a chosen unit",
     "@/bin/chess",
     {},
     "",
     "/app-gnome-calculator-1.scope",
     "chess"},
    {"a trusted script before a chosen unit",
     "/usr/bin/python3.11",
     {},
     "@/bin/painter.py",
     "/app-gnome-calculator-1.scope",
     "painter"},

    {"a sandbox's own word", "/app/bin/x", {}, "", "/", "org.flat.App", "org.flat.App"},
    {"a trusted executable before a sandbox's word",
     "@/bin/chess",
     {},
     "",
     "/",
     "chess",
     "org.flat.App"},
    {"the user's own executable", "@/home/homemade", {}, "", "/", "homemade"},
    {"the user's entry for an installed program loses", "@/bin/chess", {}, "", "/", "chess"},
    {"a copy keeps its base name", "/elsewhere/chess", {}, "", "/", "chess"},
    {"a program started through a wrapper of its name",
     "/lib/browser/browser",
     {},
     "",
     "/",
     "org.web.Browser"},
    {"the wrapper itself", "/usr/bin/dash", {}, "@/bin/browser", "/", "org.web.Browser"},
    {"the launcher's word",
     "@/bin/none",
     {},
     "",
     "/",
     "homemade",
     "",
     "@~/.local/share/applications/homemade.desktop"},
    {"the base name before the launcher's word",
     "/x/chess",
     {},
     "",
     "/",
     "chess",
     "",
     "@~/.local/share/applications/homemade.desktop"},
    {"the class of its window, the installed entry's",
     "@/bin/none",
     {},
     "",
     "/",
     "classy",
     "",
     "",
     "cLASSY"},
    {"an executable that is kept from the user",
     "",
     {"/x/chess"},
     "",
     "/app-calculator-1.scope",
     "chess",
     "",
     "",
     "",
     "chess"},
    {"the same with a name that the kernel cuts",
     "",
     {"a-game-with-a-long-name"},
     "",
     "/",
     "longname",
     "",
     "",
     "",
     "a-game-with-a-l"},
    {"a first argument alone proves nothing", "", {"/x/chess"}, "", "/", "", "", "", "", "other"},
};

INSTANTIATE_TEST_SUITE_P(Rule, IdentifyTest, testing::ValuesIn(kRows), [](const auto& row) {
  std::string name(row.param.behaviour);
  for (char& c : name) c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name;
});

using Executables = IdentifyTest;

TEST_F(Executables, AreRecognisedUnderAnotherName) {
  ASSERT_EQ(link(installed_.Native("bin/chess").constData(),
                 installed_.Native("home/innocent").constData()),
            0);
  Row row{"", "@/home/innocent", {"innocent"}, "", "/app-calculator-1.scope"};
  EXPECT_EQ(IdOf(Facts(row)), QStringLiteral("chess"));
}

TEST_F(Executables, OfWrappersHandOn) {
  Row shell{"", "/bin/sh", {"sh"}, "@/bin/browser"};
  EXPECT_TRUE(Identify(Facts(shell), entries_).isWrapper);
  Row python{"", "/usr/bin/python3", {"python3"}, "@/bin/painter.py"};
  EXPECT_FALSE(Identify(Facts(python), entries_).isWrapper);
}

TEST(SessionOfCgroup, IsOnlyTheSessionManagersScope) {
  EXPECT_EQ(SessionOfCgroup("/user.slice/user-1000.slice/session-4.scope"), "4");
  EXPECT_EQ(SessionOfCgroup("/user.slice/user-1000.slice/session-c2.scope/below"), "c2");
  EXPECT_EQ(SessionOfCgroup("/user.slice/user-1000.slice/user@1000.service/session-4.scope"), "");
  EXPECT_EQ(SessionOfCgroup("/"), "");
}

}  // namespace
}  // namespace vardell
