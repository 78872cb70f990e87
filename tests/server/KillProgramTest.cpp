// The real vardell-server, asked by real processes of two users to end real processes.
#include "tests/server/ServerProgramFixture.h"
#include "tests/support/OtherUsers.h"

namespace vardell::server {
namespace {

constexpr unsigned kKernelThreadFlag = 0x00200000;

// A process of that user which asks for these, one after the other, and stays.
class Asker : public Sleeper {
 public:
  Asker(uid_t uid, const QStringList& texts)
      : Sleeper([&] {
          (void)!setresuid(uid, uid, uid);
          static const Client client(49308);
          for (const QString& text : texts) {
            client.Send(FrameOf(RequestKind::KillProcess, QStringList{text}));
          }
        }) {}
};

// 0 where they cannot be seen, as in a container.
pid_t SomeKernelThread() {
  for (pid_t pid = 2; pid < 100; ++pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) continue;
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.value(6).toUInt() & kKernelThreadFlag) return pid;
  }
  return 0;
}

class KillProgramTest : public ServerProgramFixture {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: processes of several users ask and end";
    server_ = Program({VARDELL_BIN_DIR "/vardell-server", "--kill-only"}, {.output = Path("log")});
    ASSERT_TRUE(server_.WaitForOutput(QStringLiteral("127.0.0.1:49308")));
  }

  bool IsLogged(const QString& text) const { return server_.WaitForOutput(text); }
};

TEST_F(KillProgramTest, EndsWhatIsTheRequestersAndRefusesAllElse) {
  const Sleeper annas(Sleeper::OfUser(kAnna));
  const Sleeper berts(Sleeper::OfUser(kBert));
  const Sleeper roots;
  const Sleeper startedAsRoot(Sleeper::OfUser(kAnna, 0));
  const Sleeper setUidLeader([] {
    setsid();
    if (fork() == 0) {
      (void)!setresuid(kAnna, kAnna, kAnna);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) pause();
    }
    (void)!setresuid(kAnna, 0, 0);
  });
  const QString pid = QString::number(annas.Pid());
  const QStringList refused = {
      QStringLiteral("1"),
      QStringLiteral("0"),
      QStringLiteral("-1"),
      QLatin1Char('-') + pid,
      QString::number(server_.pid()),
      QString::number(SomeKernelThread()),
      QString::number(berts.Pid()),
      QString::number(roots.Pid()),
      QString::number(startedAsRoot.Pid()),
      QString::number(setUidLeader.Pid()),
      pid + QLatin1Char('x'),
      pid + QChar(0),
  };
  const Sleeper last(Sleeper::OfUser(kAnna));
  const Asker anna(kAnna, refused + QStringList{QString::number(last.Pid())});
  EXPECT_TRUE(last.DiesOfKill()) << "and all before it was decided";
  for (const Sleeper* victim : {&annas, &berts, &roots, &startedAsRoot, &setUidLeader}) {
    EXPECT_TRUE(victim->IsAlive()) << victim->Pid();
  }
  EXPECT_TRUE(server_.IsRunning());
  const Asker bert(kBert, {pid, QString::number(berts.Pid())});
  EXPECT_TRUE(berts.DiesOfKill());
  EXPECT_TRUE(annas.IsAlive());
  EXPECT_TRUE(
      IsLogged(QStringLiteral("kill request of uid 4343 for pid %1: refused: not").arg(pid)));
  EXPECT_TRUE(
      IsLogged(QStringLiteral("kill request of uid 4343 for pid %1: killed").arg(berts.Pid())));
}

// While the Server is stopped, a connection waits to be accepted.
TEST_F(KillProgramTest, WhoWritesAndExitsBeforeAcceptIsRefused) {
  const Sleeper ofLeaver(Sleeper::OfUser(kAnna));
  const Sleeper ofStayer(Sleeper::OfUser(kAnna));
  server_.Signal(SIGSTOP);
  Asker leaver(kAnna, {QString::number(ofLeaver.Pid())});
  leaver.End();
  const Asker stayer(kAnna, {QString::number(ofStayer.Pid())});
  server_.Signal(SIGCONT);
  EXPECT_TRUE(ofStayer.DiesOfKill());
  EXPECT_TRUE(IsLogged(QStringLiteral("unknown user")));
  EXPECT_TRUE(ofLeaver.IsAlive());
}

}  // namespace
}  // namespace vardell::server
