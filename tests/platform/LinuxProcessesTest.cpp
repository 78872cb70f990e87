#include "platform/linux/LinuxProcesses.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <QCoreApplication>

#include "platform/HotKeys.h"
#include "tests/platform/Installation.h"
#include "tests/support/FakeSession.h"
#include "tests/support/Program.h"

namespace vardell {
namespace {

using namespace test;
using namespace Qt::StringLiterals;

// Real processes. "quiet" programs are copies of sleep; "shells" are copies of bash, so that one
// file can fork, wait for the test's word and run another.
class LinuxProcessesTest : public testing::Test {
 protected:
  LinuxProcessesTest() {
    Install("quiet", "/bin/sleep");
    Install("shell", "/bin/bash");
    Install("second", "/bin/bash");
    if (mkfifo(installed_.Native("word").constData(), 0600) != 0) abort();
    word_ = open(installed_.Native("word").constData(), O_RDWR | O_CLOEXEC);
  }
  ~LinuxProcessesTest() override { close(word_); }

  void Install(const std::string& name, const char* of) const {
    installed_.CopyProgram(("bin/" + name).c_str(), of);
    installed_.AddSystemEntry(name.c_str(), "@/bin/" + QByteArray::fromStdString(name));
  }
  void AddPainter() const {
    installed_.AddProgram("bin/painter.py", "#!/usr/bin/python3\nimport time\ntime.sleep(1000)\n");
    installed_.AddSystemEntry("painter", "python3 @/bin/painter.py");
  }
  std::string Path(const char* relative) const { return installed_.Native(relative).toStdString(); }
  Program Start(std::vector<std::string> words) const { return Program(words, {}); }
  Program StartQuiet(const char* program = "bin/quiet") const {
    return Start({Path(program), "1000"});
  }
  // What the text does after the test's word.
  std::string AfterWord(const std::string& text) const {
    return "read word < " + Path("word") + "; " + text;
  }
  void SayWord() const { EXPECT_EQ(write(word_, "\n", 1), 1); }

  void Watch() {
    processes_.Watch([this](const auto& process) { Note("launched", process); },
                     [this](const auto& process) { Note("terminated", process); });
  }
  void Note(const std::string& what, const ProcessSerialNumber& process) {
    const auto info = processes_.Application(process);
    events_.push_back(what + " " + std::to_string(process.pid) +
                      (info ? " " + info->path.section(u'/', -1).toStdString() : ""));
  }
  bool WaitTold(const std::string& what, pid_t pid, const std::string& who = {}) {
    const std::string event = what + " " + std::to_string(pid) + (who.empty() ? "" : " " + who);
    return WaitUntil([&] { return std::count(events_.begin(), events_.end(), event) > 0; }, 5s);
  }
  // The identifier or the path of the application that the process is the main one of.
  QString Running(pid_t pid) {
    for (const ProcessSerialNumber& process : processes_.RunningApplications()) {
      if (process.pid != pid) continue;
      const auto info = processes_.Application(process);
      return info ? info->identifier.value_or(info->path) : QString();
    }
    return {};
  }
  static bool WaitExecutable(const char* end, pid_t pid) {
    return WaitUntil([&] { return ReadExecutable(pid).endsWith(end); });
  }
  bool WaitEvents(std::size_t count) {
    return WaitUntil([&] { return events_.size() == count; }, 5s);
  }
  bool WaitRunning(pid_t pid, const char* id) {
    return WaitUntil([&] { return Running(pid) == QString::fromUtf8(id); }, 5s);
  }

  test::CoreApplication application_;
  Installation installed_;
  int word_ = -1;
  FakeSession session_;
  std::vector<pid_t> owners_;
  LinuxProcesses processes_{session_, {[this] { return owners_; }, {}}};
  std::vector<std::string> events_;
};

TEST_F(LinuxProcessesTest, LaunchIsToldWithinASecondAndItsEndAtOnce) {
  Watch();
  const auto begin = test::Clock::now();
  Program program = StartQuiet();
  Program twin = StartQuiet();
  ASSERT_TRUE(WaitTold("launched", program.pid(), "quiet.desktop"));
  ASSERT_TRUE(WaitTold("launched", twin.pid(), "quiet.desktop"));
  EXPECT_LT(test::Clock::now() - begin, 1s);
  const auto stat = ReadProcessStat(program.pid());
  EXPECT_TRUE(processes_.Application({program.pid(), stat->started}));
  EXPECT_FALSE(processes_.Application({program.pid(), stat->started - 1})) << "an earlier life";
  EXPECT_TRUE(processes_.IsAlive(program.pid()));
  // Killed from outside, and not yet reaped: a zombie has ended.
  program.Signal(SIGKILL);
  ASSERT_TRUE(test::WaitForExit(program.pidfd()));
  EXPECT_FALSE(processes_.IsAlive(program.pid()));
  const auto killed = test::Clock::now();
  ASSERT_TRUE(WaitTold("terminated", program.pid()));
  EXPECT_LT(test::Clock::now() - killed, 500ms);
  EXPECT_EQ(events_.size(), 3u);
}

TEST_F(LinuxProcessesTest, OfWhatRunsBeforeTheWatchOnlyTheEndIsTold) {
  Program program = StartQuiet();
  Program ended = StartQuiet();
  const pid_t pid = ended.pid();
  ASSERT_TRUE(WaitRunning(program.pid(), "quiet") && WaitRunning(pid, "quiet"));
  ended.End(SIGKILL);
  Watch();
  EXPECT_TRUE(events_.empty()) << "from inside a call";
  EXPECT_TRUE(WaitTold("terminated", pid));
  program.Signal(SIGTERM);
  EXPECT_TRUE(WaitTold("terminated", program.pid()));
  EXPECT_EQ(events_.size(), 2u);
  Program later = StartQuiet();
  ASSERT_TRUE(WaitRunning(later.pid(), "quiet"));
  EXPECT_TRUE(WaitTold("launched", later.pid(), "quiet.desktop")) << "though it was listed first";
}

TEST_F(LinuxProcessesTest, ExecOverEndsOneApplicationAndMayLaunchAnother) {
  Watch();
  const std::string last = AfterWord("exec /bin/sleep 1000");
  Program program = Start(
      {Path("bin/shell"), "-c", AfterWord("exec " + Path("bin/second") + " -c '" + last + "'")});
  const std::string pid = std::to_string(program.pid());
  ASSERT_TRUE(WaitTold("launched", program.pid(), "shell.desktop"));
  SayWord();
  ASSERT_TRUE(WaitTold("launched", program.pid(), "second.desktop"));
  SayWord();
  ASSERT_TRUE(WaitEvents(4));
  EXPECT_EQ(events_[1].find("terminated " + pid), 0u);
  EXPECT_EQ(events_[3].find("terminated " + pid), 0u);
}

TEST_F(LinuxProcessesTest, HelpersBelongToTheirMainProcessAndSucceedIt) {
  Watch();
  const std::string helper = Path("bin/shell") + " -c '" + AfterWord("true") + "' & ";
  Program main = Start({Path("bin/shell"), "-c", helper + helper + "wait"});
  ASSERT_TRUE(WaitTold("launched", main.pid(), "shell.desktop"));
  EXPECT_EQ(processes_.RunningApplications().size(), 2u) << "the login window and one";
  main.Signal(SIGKILL);
  ASSERT_TRUE(WaitTold("terminated", main.pid()));
  // What outlives it is watched on.
  ASSERT_TRUE(WaitEvents(4));
  EXPECT_EQ(processes_.RunningApplications().size(), 3u);
  SayWord();
  SayWord();
  EXPECT_TRUE(WaitEvents(6));
}

TEST_F(LinuxProcessesTest, ScriptIsFoundUnderItsInterpreterAlsoByARelativePath) {
  AddPainter();
  const std::string relatively =
      "cd " + Path("bin") + "; exec /usr/bin/python3 -B -X utf8 ./painter.py";
  for (const auto& command : std::vector<std::vector<std::string>>{{Path("bin/painter.py")},
                                                                   {"/bin/sh", "-c", relatively}}) {
    const Program program = Start(command);
    EXPECT_TRUE(WaitRunning(program.pid(), "painter"));
  }
  const Program other = Start({"/usr/bin/python3", "-c", "import time; time.sleep(1000)"});
  ASSERT_TRUE(WaitUntil([&] { return ReadExecutable(other.pid()).contains("python"); }));
  EXPECT_EQ(Running(other.pid()), QString());
}

TEST_F(LinuxProcessesTest, WhatIsMountedOverAPartOfTheSessionIsStillItself) {
  if (test::Run({"unshare", "-Urm", "true"}, {}).status != 0) GTEST_SKIP() << "needs namespaces";
  AddPainter();
  installed_.CopyProgram("bin/wm", "/bin/true");
  installed_.AddProgram("bin/panel", "#!/usr/bin/python3\n");
  const char* const rows[][3] = {{"bin/quiet", "bin/wm", "quiet"},
                                 {"bin/painter.py", "bin/panel", "painter"}};
  for (const auto& [what, over, id] : rows) {
    installed_.AddSystemEntry(over + 4, "@/" + QByteArray(over), "X-GNOME-Autostart-Phase=Panel");
    const std::string mount = "mount --bind " + Path(what) + " " + Path(over);
    Program program =
        Start({"unshare", "-Urm", "sh", "-c", mount + " && exec " + Path(over) + " 1000"});
    EXPECT_TRUE(WaitRunning(program.pid(), id));
  }
}

TEST_F(LinuxProcessesTest, ProgramOutOfAMountedImageBelongsToTheImage) {
  installed_.AddProgram("home/Painter.AppImage");
  installed_.AddUserEntry("painter", "@/home/Painter.AppImage %F");
  QTemporaryDir mounted(u"/tmp/.mount_PainteXXXXXX"_s);
  const std::string inside = mounted.filePath(u"paint"_s).toStdString();
  ASSERT_TRUE(QFile::copy(u"/bin/sleep"_s, QString::fromStdString(inside)));
  const std::map<std::string, std::string> image{{"APPIMAGE", Path("home/Painter.AppImage")}};
  Program program({inside, "1000"}, {.environment = image});
  Program outside({Path("bin/quiet"), "1000"}, {.environment = image});
  EXPECT_TRUE(WaitRunning(program.pid(), "painter"));
  EXPECT_TRUE(WaitRunning(outside.pid(), "quiet"));
}

TEST_F(LinuxProcessesTest, WhatAWrapperBecomesOrLeavesBehindIsStillTheApplication) {
  installed_.CopyProgram("home/real", "/bin/bash");
  // Becomes it at the word, or forks it and waits.
  const std::map<const char*, QByteArray> wrappers{
      {"becomes", "#!/bin/bash\nread word < @/word\nexec @/home/real -c 'read word < @/word;:'\n"},
      {"forks", "#!/bin/bash\n@/home/real -c 'read word < @/word;:'\ntrue\n"}};
  for (const auto& [name, text] : wrappers) {
    const std::string path = std::string("bin/") + name;
    installed_.AddProgram(path.c_str(), text);
    installed_.AddSystemEntry(name, "@/" + QByteArray::fromStdString(path));
  }
  Watch();
  Program becoming = Start({Path("bin/becomes")});
  ASSERT_TRUE(WaitTold("launched", becoming.pid(), "becomes.desktop"));
  SayWord();
  ASSERT_TRUE(WaitExecutable("/home/real", becoming.pid()));
  EXPECT_EQ(Running(becoming.pid()), u"becomes"_s);
  becoming.Signal(SIGKILL);
  ASSERT_TRUE(WaitTold("terminated", becoming.pid()));
  EXPECT_EQ(events_.size(), 2u);

  Program forking = Start({Path("bin/forks")});
  ASSERT_TRUE(WaitTold("launched", forking.pid(), "forks.desktop"));
  QFile children(u"/proc/%1/task/%1/children"_s.arg(forking.pid()));
  ASSERT_TRUE(children.open(QIODevice::ReadOnly));
  ASSERT_TRUE(WaitUntil([&] {
    children.seek(0);
    return ReadExecutable(children.readAll().split(' ')[0].toInt()).endsWith("/home/real");
  }));
  (void)processes_.RunningApplications();
  forking.Signal(SIGKILL);
  ASSERT_TRUE(WaitEvents(5));
  EXPECT_NE(events_[4].find("forks.desktop"), std::string::npos) << events_[4];
  SayWord();
  EXPECT_TRUE(WaitEvents(6));
}

TEST_F(LinuxProcessesTest, MainThreadThatEndsIsNotTheEndOfItsProcess) {
  installed_.AddProgram("bin/hollow.py",
                        "import ctypes, threading, time\n"
                        "threading.Thread(target=time.sleep, args=(1000,)).start()\n"
                        "ctypes.CDLL(None).syscall(60, 0)\n");
  installed_.AddSystemEntry("hollow", "python3 @/bin/hollow.py");
  Watch();
  Program program = Start({"/usr/bin/python3", Path("bin/hollow.py")});
  ASSERT_TRUE(WaitTold("launched", program.pid(), "hollow.desktop"));
  ASSERT_TRUE(WaitUntil([&] {
    const auto stat = ReadProcessStat(program.pid());
    return stat && stat->state == 'Z';
  }));
  EXPECT_TRUE(processes_.IsAlive(program.pid()));
  EXPECT_EQ(Running(program.pid()), u"hollow"_s);
  program.Signal(SIGKILL);
  EXPECT_TRUE(WaitTold("terminated", program.pid()));
}

TEST_F(LinuxProcessesTest, BareExecutableIsAnApplicationOnceItOwnsAWindow) {
  for (const char* name : {"home/ab", "home/late"}) installed_.CopyProgram(name, "/bin/sleep");
  Program program = StartQuiet("home/ab");
  ASSERT_TRUE(WaitExecutable("/home/ab", program.pid()));
  Watch();
  EXPECT_EQ(Running(program.pid()), QString());
  owners_ = {program.pid()};
  ASSERT_TRUE(WaitTold("launched", program.pid(), "ab"));
  const auto stat = ReadProcessStat(program.pid());
  const auto info = processes_.Application({program.pid(), stat->started});
  ASSERT_TRUE(info);
  EXPECT_FALSE(info->isBundle);
  EXPECT_EQ(info->creatorCode, FourCharCode("ab  "));
  if (setxattr(Path("home/ab").c_str(), "user.creator", "GAME", 4, 0) == 0) {
    EXPECT_EQ(processes_.Application({program.pid(), stat->started})->creatorCode,
              FourCharCode("GAME"));
  }
  // The window goes, the application does not; an entry that comes later is taken.
  owners_.clear();
  EXPECT_EQ(Running(program.pid()), QString::fromStdString(Path("home/ab")));
  const Program late = StartQuiet("home/late");
  installed_.AddSystemEntry("late", "@/home/late");
  EXPECT_TRUE(WaitTold("launched", late.pid(), "late.desktop"));
}

TEST_F(LinuxProcessesTest, OtherUsersProcessesAreNotOurs) {
  if (getuid() != 0) GTEST_SKIP() << "needs root, to become somebody else";
  ASSERT_EQ(chmod(Path("").c_str(), 0755), 0);
  Program ours = StartQuiet();
  Program theirs({Path("bin/quiet"), "1000"}, {.uid = 65534});
  ASSERT_TRUE(WaitExecutable("/bin/quiet", theirs.pid()));
  ASSERT_TRUE(WaitRunning(ours.pid(), "quiet"));
  EXPECT_EQ(Running(theirs.pid()), QString());
}

TEST_F(LinuxProcessesTest, LoginWindowIsTheSessionsLeaderAndNeitherItNorThisIsAnApplication) {
  installed_.AddSystemEntry("self", QFile::encodeName(QCoreApplication::applicationFilePath()));
  owners_ = {getpid()};
  Program leader = StartQuiet();
  session_.leaderPid = leader.pid();
  const ProcessSerialNumber login = processes_.RunningApplications().at(0);
  EXPECT_EQ(login.pid, leader.pid());
  EXPECT_EQ(processes_.Application(login)->identifier, QLatin1String(kLoginWindowIdentifier));
  EXPECT_EQ(processes_.RunningApplications().size(), 1u);
  session_.leaderPid = 0;
  EXPECT_EQ(processes_.RunningApplications().at(0), ProcessSerialNumber{});
  EXPECT_EQ(processes_.Application({})->identifier, QLatin1String(kLoginWindowIdentifier));
  EXPECT_TRUE(processes_.IsAlive(1)) << "of another user";
  for (const int pid : {0, -1, -getpid(), INT_MAX}) EXPECT_FALSE(processes_.IsAlive(pid)) << pid;
}

// Processes that are not new any more are looked at less closely.
class OldProcessesTest : public LinuxProcessesTest {
 protected:
  static void SetUpTestSuite() { setenv("VARDELL_TEST_SECOND_MS", "20", 1); }
  static void TearDownTestSuite() { unsetenv("VARDELL_TEST_SECOND_MS"); }
  // Lets scans go by until what runs is old.
  void GrowOld() {
    const auto end = test::Clock::now() + 200ms;
    ASSERT_TRUE(WaitUntil([&] { return test::Clock::now() > end; }));
    (void)processes_.RunningApplications();
  }
};

TEST_F(OldProcessesTest, ExecIsStillSeenAlsoOfItselfWithTheArgumentsOfASibling) {
  installed_.CopyProgram("bin/office", "/bin/bash");
  installed_.AddSystemEntry("calc", "@/bin/office --posix");
  installed_.AddSystemEntry("writer", "@/bin/office --norc");
  installed_.AddProgram("home/second", AfterWord("exec @/bin/office --norc @/home/third").c_str());
  installed_.AddProgram("home/third", AfterWord("true").c_str());
  Watch();
  Program program = Start({Path("bin/shell"), "-c",
                           AfterWord("exec " + Path("bin/office --posix ") + Path("home/second"))});
  for (const char* entry : {"shell.desktop", "calc.desktop", "writer.desktop"}) {
    ASSERT_TRUE(WaitTold("launched", program.pid(), entry)) << entry;
    GrowOld();
    SayWord();
  }
}

TEST_F(OldProcessesTest, HelperThatItsMainProcessTakesBackStaysAHelper) {
  installed_.CopyProgram("bin/unnamed", "/bin/bash");
  ASSERT_EQ(mkfifo(Path("never").c_str(), 0600), 0);
  const std::string wait = "read word < " + Path("never");
  const std::string between = Path("bin/unnamed") + " -c '" + Path("bin/shell") + " -c \"" + wait +
                              "; :\" & echo $! > " + Path("helper") + "; read word < " +
                              Path("word") + "'";
  // A process that orphans below it come back to (prctl 36).
  Program main = Start({"/usr/bin/python3", "-c",
                        "import ctypes, os, sys; ctypes.CDLL(None).prctl(36, 1); "
                        "os.execv(sys.argv[1], sys.argv[1:])",
                        Path("bin/shell"), "-c", between + "; " + wait});
  ASSERT_TRUE(WaitRunning(main.pid(), "shell"));
  QFile helper(installed_.Path("helper"));
  ASSERT_TRUE(WaitUntil([&] { return helper.size() > 0; }));
  ASSERT_TRUE(helper.open(QIODevice::ReadOnly));
  const pid_t pid = helper.readAll().trimmed().toInt();
  ASSERT_TRUE(WaitExecutable("/bin/shell", pid));
  const std::size_t before = processes_.RunningApplications().size();
  ASSERT_EQ(before, 2u) << "the login window and one";
  GrowOld();
  SayWord();
  ASSERT_TRUE(WaitUntil([&] { return ReadProcessStat(pid)->parent == main.pid(); }));
  EXPECT_EQ(processes_.RunningApplications().size(), before);
  main.Signal(SIGKILL);
  EXPECT_TRUE(WaitRunning(pid, "shell")) << "what outlives it is the application";
  kill(pid, SIGKILL);
}

}  // namespace
}  // namespace vardell
