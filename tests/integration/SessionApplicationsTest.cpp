// What an administrator sees of other people's sessions, beside what their real agents see.

#include "platform/linux/SessionApplications.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <QDir>
#include <algorithm>

#include "Common Sources/Caps.h"
#include "limits/ApplicationIdentifier.h"
#include "platform/linux/ProcessTable.h"
#include "platform/linux/Rights.h"
#include "platform/linux/SessionView.h"
#include "tests/integration/World.h"
#include "tests/support/OtherUsers.h"

namespace vardell::test {
namespace {

using Answer = AnsweringSession::Answer;

class SessionApplicationsTest : public testing::Test {
 protected:
  SessionApplicationsTest() {
    // Others must get in, and this program must find the same applications as the agent.
    chmod(world_.Path("").c_str(), 0755);
    setenv("VARDELL_TEST_ROOT", world_.Path("").substr(0, world_.Path("").size() - 1).c_str(), 1);
    QDir().mkpath(QString::fromStdString(world_.Path("bin")));
    world_.InstallApplication("org.toys.Clock");
    Copy("/usr/bin/xclock", world_.Path("apps/bareclock"));
  }
  ~SessionApplicationsTest() override {
    EndAgents();
    unsetenv("VARDELL_TEST_ROOT");
  }

  static void Copy(const std::string& of, const std::string& path) {
    if (!QFile::copy(QString::fromStdString(of), QString::fromStdString(path))) abort();
    chmod(path.c_str(), 0755);
  }
  std::string AgentPath() const { return world_.Path("bin/vardell-agent"); }
  void CopyAgent(const std::string& of = VARDELL_BIN_DIR "/vardell-agent") const {
    Copy(of, AgentPath());
  }
  // In a session that a shell leads.
  Program StartAgent(uid_t uid = 0) const {
    return Program({"/bin/sh", "-c", AgentPath() + " & wait"},
                   {.environment = world_.Environment(),
                    .output = world_.Path("agent-" + std::to_string(uid) + ".log"),
                    .ownSession = true,
                    .uid = uid});
  }
  void EndAgents() const {
    const auto find = [this] { return FindSessionAgents(QByteArray::fromStdString(AgentPath())); };
    EXPECT_TRUE(WaitUntil([&] {
      const SessionAgents found = find();
      for (const SessionAgent& agent : found.agents) kill(agent.process.pid, SIGKILL);
      return found.agents.empty();
    }));
  }
  // Something of the agent's name that does nothing, on a display of the test's choice.
  Program StartStandIn(const std::string& display, uid_t uid = 0) const {
    return Program({AgentPath(), "1000"}, {.environment = {{"DISPLAY", display}}, .uid = uid});
  }
  Program Start(const std::string& path, uid_t uid = 0) const {
    return Program({path}, {.uid = uid});
  }
  SessionApplications Look(std::optional<uid_t> user = {},
                           std::chrono::milliseconds patience = kPatience) const {
    return LookAtSessions(user, QByteArray::fromStdString(AgentPath()), patience);
  }
  // "user pid identifier" of each, without those of the machine's own that have a window here.
  static QStringList Lines(const SessionApplications& all) {
    QStringList lines;
    for (const SessionApplication& one : all.applications) {
      lines.push_back(
          QStringLiteral("%1 %2 %3")
              .arg(one.user, QString::number(one.process.pid),
                   MakeApplicationIdentifier(one.application).value_or(QStringLiteral("none"))));
    }
    return lines;
  }
  static QString Line(const QString& user, pid_t pid, const char* identifier) {
    return QStringLiteral("%1 %2 %3")
        .arg(user, QString::number(pid), QString::fromUtf8(identifier));
  }
  bool WaitForLines(std::optional<uid_t> user, const QStringList& wanted) const {
    QStringList lines;
    const bool came = WaitUntil([&] {
      lines = Lines(Look(user));
      return lines == wanted;
    });
    EXPECT_EQ(lines.join(u'\n').toStdString(), wanted.join(u'\n').toStdString());
    return came;
  }

  World world_;
};

TEST_F(SessionApplicationsTest, AreTheOnesThatTheRealAgentCounts) {
  CopyAgent();
  world_.StartServer();
  Program leader = StartAgent();
  Program clock = world_.Launch("org.toys.Clock");
  Program bare = Start(world_.Path("apps/bareclock"));
  Program terminal = Start("/usr/bin/xterm");
  const QString user = QString::fromStdString(world_.user());
  ASSERT_TRUE(WaitForLines({}, {Line(user, leader.pid(), kLoginWindowIdentifier),
                                Line(user, clock.pid(), "org.toys.Clock"),
                                Line(user, bare.pid(), "com.brenwick.fakeID.bare"),
                                Line(user, terminal.pid(), "com.brenwick.fakeID.xter")}));
  const SessionApplications all = Look();
  ASSERT_EQ(all.sessions.size(), 1u);
  EXPECT_EQ(all.sessions[0].answer, Answer::Whole);
  EXPECT_EQ(all.applications[1].application.displayName, QStringLiteral("Toy org.toys.Clock"));
  for (const SessionApplication& one : all.applications) {
    const std::string identifier = MakeApplicationIdentifier(one.application)->toStdString();
    world_.SetLimits(identifier, {"Credit=100"});
  }
  // An agent looks at its limits anew only for what comes: it is started again.
  leader.End(SIGKILL);
  EndAgents();
  leader = StartAgent();
  for (const SessionApplication& one : all.applications) {
    const std::string identifier = MakeApplicationIdentifier(one.application)->toStdString();
    EXPECT_TRUE(WaitUntil([&] { return !world_.Claims(identifier).empty(); })) << identifier;
  }
}

TEST_F(SessionApplicationsTest, AgentIsNoApplicationThoughItShowsAWindow) {
  CopyAgent("/usr/bin/xclock");
  const Program agent = Start(AgentPath());
  ASSERT_TRUE(WaitUntil([&] {
    return test::Run({"xwininfo", "-name", "vardell-agent"}, {})
        .output.contains(QStringLiteral("IsViewable"));
  }));
  const SessionApplications all = Look();
  EXPECT_EQ(all.applications.size(), 1u) << qPrintable(Lines(all).join(u'\n'));
  EXPECT_EQ(all.sessions.at(0).answer, Answer::Whole);
}

TEST_F(SessionApplicationsTest, EachUserHasTheirOwn) {
  if (getuid() != 0) GTEST_SKIP() << "needs root, to become somebody else";
  CopyAgent();
  test::Run({"xhost", "+SI:localuser:#" + std::to_string(kAnna)}, {});
  Program own = StartAgent();
  Program annas = StartAgent(kAnna);
  Program ownClock = world_.Launch("org.toys.Clock");
  Program annasClock = Start(world_.ExecutableOf("org.toys.Clock"), kAnna);
  Program annasBare = Start(world_.Path("apps/bareclock"), kAnna);
  const QString root = QString::fromStdString(world_.user());
  const QString anna = QString::number(kAnna);
  const QStringList annasLines = {Line(anna, annas.pid(), kLoginWindowIdentifier),
                                  Line(anna, annasClock.pid(), "org.toys.Clock"),
                                  Line(anna, annasBare.pid(), "com.brenwick.fakeID.bare")};
  EXPECT_TRUE(WaitForLines(kAnna, annasLines));
  EXPECT_TRUE(WaitForLines(0, {Line(root, own.pid(), kLoginWindowIdentifier),
                               Line(root, ownClock.pid(), "org.toys.Clock")}));
  EXPECT_EQ(Look().applications.size(), 5u);
  EXPECT_EQ(Look(kBert).sessions.size(), 0u);

  Copy(VARDELL_BIN_DIR "/vardellctl", world_.Path("bin/vardellctl"));
  const auto vardellctl = [&](uid_t uid, const std::string& user) {
    return test::Run({world_.Path("bin/vardellctl"), "apps", "running", user},
                     {.environment = world_.Environment(), .uid = uid});
  };
  const Finished told = vardellctl(0, std::to_string(kAnna));
  EXPECT_EQ(told.status, 0);
  const QString table = QStringLiteral(
      "USER  PID IDENTIFIER NAME\n4242 %1 computer the session\n"
      "4242 %2 org.toys.Clock Toy org.toys.Clock\n4242 %3 com.brenwick.fakeID.bare bareclock");
  EXPECT_EQ(told.output.simplified(),
            table.arg(annas.pid()).arg(annasClock.pid()).arg(annasBare.pid()).simplified());
  EXPECT_EQ(vardellctl(kAnna, std::to_string(kAnna)).output, told.output) << "her own";
  const Finished refused = vardellctl(kBert, std::to_string(kAnna));
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(refused.output.contains(QStringLiteral("only root sees")))
      << qPrintable(refused.output);
}

TEST_F(SessionApplicationsTest, SessionIsEndedByTheLeaderThatTheSessionManagerNotes) {
  CopyAgent("/bin/sleep");
  const Program agent = StartStandIn("");
  const Sleeper leader;
  for (const char* path : {"run/systemd/users", "run/systemd/sessions"})
    QDir().mkpath(QString::fromStdString(world_.Path(path)));
  const auto write = [&](const std::string& path, const std::string& text) {
    QFile file(QString::fromStdString(world_.Path("run/systemd/" + path)));
    if (!file.open(QIODevice::WriteOnly)) abort();
    file.write(QByteArray::fromStdString(text));
  };
  write("users/" + std::to_string(getuid()), "NAME=x\nDISPLAY=c7\n");
  write("sessions/c7", "TYPE=x11\nLEADER=" + std::to_string(leader.Pid()) + "\n");
  ASSERT_TRUE(WaitUntil([&] { return Look().applications.size() == 1; }));
  EXPECT_EQ(Look().applications[0].process.pid, leader.Pid());
  EXPECT_EQ(Look().sessions[0].answer, Answer::WithoutWindows);
}

// ---- failures ----------------------------------------------------------------------------------

TEST_F(SessionApplicationsTest, NoAgentIsToldFromOneThatMayNotBeSeen) {
  CopyAgent("/bin/sleep");
  EXPECT_TRUE(Look().sessions.empty());
  EXPECT_EQ(Look().notPermitted, 0);
  if (getuid() != 0) GTEST_SKIP() << "needs root, to become somebody else";
  const Program agent = StartStandIn("");
  ASSERT_TRUE(WaitUntil([&] { return Look().sessions.size() == 1; }));
  int result[2];
  ASSERT_EQ(pipe(result), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (setresuid(kBert, kBert, kBert) != 0) _exit(1);
    const SessionApplications seen = Look();
    _exit(seen.sessions.empty() && seen.applications.empty() && seen.notPermitted > 0 ? 0 : 2);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

// An X server of the session's that the test plays.
class HostileServer {
 public:
  HostileServer() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) abort();
    chmod(path_.c_str(), 0777);
    listen(listener_, 8);
  }
  ~HostileServer() {
    close(listener_);
    unlink(path_.c_str());
  }
  std::string Display() const { return ":" + std::to_string(number_); }
  // The user whose process has connected, whether it still lives or not; absent where none has.
  std::optional<uid_t> TakeUser() const {
    const int connection = accept(listener_, nullptr, nullptr);
    if (connection < 0) return std::nullopt;
    ucred peer{};
    socklen_t size = sizeof peer;
    getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    close(connection);
    return peer.uid;
  }

 private:
  int number_ = 20000 + getpid() % 10000;
  std::string path_ = "/tmp/.X11-unix/X" + std::to_string(number_);
  int listener_ = -1;
};

TEST_F(SessionApplicationsTest, SilentXServerCostsItsSessionsAnswerAndFacesItsUserAlone) {
  CopyAgent("/bin/sleep");
  const uid_t user = getuid() == 0 ? kAnna : getuid();
  const HostileServer server;
  const Program agent = StartStandIn(server.Display(), user == getuid() ? 0 : user);
  ASSERT_TRUE(WaitUntil([&] {
    return FindSessionAgents(QByteArray::fromStdString(AgentPath())).agents.size() == 1;
  }));
  const auto begin = Clock::now();
  const SessionApplications all = Look({}, 500ms);
  EXPECT_LT(Clock::now() - begin, 2s);
  ASSERT_EQ(all.sessions.size(), 1u);
  EXPECT_EQ(all.sessions[0].answer, Answer::None);
  EXPECT_EQ(all.applications.size(), 1u) << "the login window";
  EXPECT_EQ(server.TakeUser(), user);
  QFile children(QStringLiteral("/proc/self/task/%1/children").arg(getpid()));
  ASSERT_TRUE(children.open(QIODevice::ReadOnly));
  EXPECT_EQ(children.readAll().simplified().toInt(), agent.pid()) << "nothing else is left";
}

// What runs in an agent's place may have root's rights, and would be looked at with these.
TEST_F(SessionApplicationsTest, AgentThatStartsAnotherProgramInItsPlaceIsNone) {
  CopyAgent("/bin/sh");
  const std::string gate = world_.Path("gate");
  ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
  const Program agent({AgentPath(), "-c", "read word < " + gate + "; exec sleep 1000"}, {});
  const QByteArray path = QByteArray::fromStdString(AgentPath());
  SessionAgents found;
  ASSERT_TRUE(WaitUntil([&] { return (found = FindSessionAgents(path)).agents.size() == 1; }));
  EXPECT_TRUE(IsStill(found.agents[0]));
  QFile opened(QString::fromStdString(gate));
  ASSERT_TRUE(opened.open(QIODevice::WriteOnly) && opened.write("go\n") == 3 && opened.flush());
  EXPECT_TRUE(WaitUntil([&] { return !IsStill(found.agents[0]); }));
  EXPECT_TRUE(agent.IsRunning());
}

// A pid that was given back could be anybody's when what still runs is killed.
TEST_F(SessionApplicationsTest, LookersAreWaitedForThoughDeathsOfChildrenAreIgnored) {
  if (getuid() != 0) GTEST_SKIP() << "needs root, to become somebody else";
  CopyAgent("/bin/sleep");
  const HostileServer server;
  const Program quick = StartStandIn("");
  const Program silent = StartStandIn(server.Display(), kAnna);
  const QByteArray path = QByteArray::fromStdString(AgentPath());
  ASSERT_TRUE(WaitUntil([&] { return FindSessionAgents(path).agents.size() == 2; }));
  int seen[2];
  ASSERT_EQ(pipe(seen), 0);
  const pid_t parent = getpid();
  const pid_t watch = fork();
  if (watch == 0) {
    const auto isEndedLooker = [parent](const ListedProcess& listed) {
      const std::optional<ProcessStat> stat = ReadProcessStat(listed.pid);
      return stat && stat->parent == parent && stat->state == 'Z';
    };
    const bool wasSeen = WaitUntil([&] {
      const std::vector<ListedProcess> all = ListProcesses();
      return std::any_of(all.begin(), all.end(), isEndedLooker);
    });
    if (wasSeen) (void)!write(seen[1], "z", 1);
    _exit(0);
  }
  close(seen[1]);
  const auto before = signal(SIGCHLD, SIG_IGN);
  (void)Look({}, 2s);
  EXPECT_EQ(signal(SIGCHLD, before), SIG_IGN) << "as it was";
  pollfd wait{seen[0], POLLIN, 0};
  EXPECT_TRUE(poll(&wait, 1, 0) == 1 && (wait.revents & POLLIN) != 0);
  close(seen[0]);
  kill(watch, SIGKILL);
  waitpid(watch, nullptr, 0);
}

TEST_F(SessionApplicationsTest, RightsThatAreGivenUpDoNotComeBack) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  EXPECT_FALSE(BecomeUserForGood(0, 0));
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    if (!BecomeUserForGood(kAnna, kBert)) _exit(1);
    (void)!setuid(0);
    (void)!setresgid(0, 0, 0);
    QFile status(QStringLiteral("/proc/self/status"));
    const QByteArray text = status.open(QIODevice::ReadOnly) ? status.readAll() : QByteArray();
    for (const QByteArray& line : text.split('\n')) {
      for (const char* key : {"Uid:", "Gid:", "Groups:", "CapPrm:", "CapEff:", "NoNewPrivs:"}) {
        if (line.startsWith(key)) (void)!write(ends[1], (line + '\n').constData(), line.size() + 1);
      }
    }
    _exit(0);
  }
  close(ends[1]);
  char text[1024] = {};
  ssize_t size = 0;
  while (const ssize_t count = read(ends[0], text + size, sizeof text - 1 - size)) size += count;
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_STREQ(text,
               "Uid:\t4242\t4242\t4242\t4242\nGid:\t4343\t4343\t4343\t4343\nGroups:\t \n"
               "CapPrm:\t0000000000000000\nCapEff:\t0000000000000000\nNoNewPrivs:\t1\n");
}

TEST(SessionViewTest, IsReadBackWholeOrNotAtAll) {
  SessionView view;
  view.hasWindows = true;
  ApplicationInfo entry;
  entry.path = QStringLiteral("/a b/ü.desktop");
  entry.isBundle = true;
  entry.identifier = QStringLiteral("org.a b");
  entry.displayName = QStringLiteral("Zeile\neins %20");
  ApplicationInfo bare;
  bare.path = QStringLiteral("/bin/ab");
  bare.creatorCode = 0x61622020;
  view.applications = {{{17, 4000000000000ull}, entry}, {{18, 5}, bare}};
  const QByteArray text = WriteSessionView(view);
  const auto read = ReadSessionView(text);
  ASSERT_TRUE(read);
  EXPECT_TRUE(read->hasWindows);
  ASSERT_EQ(read->applications.size(), 2u);
  EXPECT_EQ(read->applications[0].process, view.applications[0].process);
  EXPECT_EQ(read->applications[0].info.identifier, entry.identifier);
  EXPECT_EQ(read->applications[0].info.displayName, entry.displayName);
  EXPECT_EQ(read->applications[0].info.path, entry.path);
  EXPECT_EQ(MakeApplicationIdentifier(read->applications[1].info),
            QStringLiteral("com.brenwick.fakeID.ab  "));
  for (qsizetype size = 0; size < text.size(); ++size)
    EXPECT_FALSE(ReadSessionView(text.left(size)));
  for (const char* bad :
       {"windows\n-1 1 1 a 1 1 b c\nend\n", "windows\n0 1 1 a 1 1 b c\nend\n",
        "windows\n1 1 2 a 1 1 b c\nend\n", "windows\n1 1 1 a 1 1 b\nend\n",
        "windows\n1 x 1 a 1 1 b c\nend\n", "window\nend\n", "windows\nend\nend\n"})
    EXPECT_FALSE(ReadSessionView(bad)) << bad;
  EXPECT_FALSE(ReadSessionView(QByteArray(kMaxSessionViewBytes + 1, '\n')));
}

}  // namespace
}  // namespace vardell::test
