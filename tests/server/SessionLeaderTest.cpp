#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QTemporaryDir>
#include <chrono>
#include <cstdlib>

#include "server/SafeKill.h"
#include "tests/support/OtherUsers.h"
#include "tests/support/Program.h"

namespace vardell::server {
namespace {

using test::kAnna;
using test::kBert;
using test::Sleeper;
using test::Program;
using test::WaitUntil;

// A system bus of the test's own, and login1 on it when asked for. libdbus takes the address once
// in a process, so that the steps below, from no bus at all to a silent login1, share it.
class SessionLeader : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(folder_.isValid());
    socket_ = folder_.filePath(QStringLiteral("bus"));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket_.toStdString()).c_str(), 1);
  }

  void StartBus() {
    bus_ = Program({"dbus-daemon", "--session", "--nofork", "--nopidfile",
                    "--address=unix:path=" + socket_.toStdString()},
                   {});
    ASSERT_TRUE(WaitUntil([] {
      const bool up =
          QDBusConnection::connectToBus(QDBusConnection::SystemBus, Name()).isConnected();
      if (!up) QDBusConnection::disconnectFromBus(Name());
      return up;
    }));
  }
  void StartLogin1() {
    Program::Options quiet;
    quiet.output = folder_.filePath(QStringLiteral("login1.log")).toStdString();
    login1_ =
        Program({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"}, quiet);
    ASSERT_TRUE(WaitUntil([] {
      return Call(Login1(), "org.freedesktop.DBus.Peer", "Ping").type() ==
             QDBusMessage::ReplyMessage;
    }));
  }
  void AddSession(const QString& id, uid_t user, pid_t leader) {
    const QDBusMessage added =
        Call(Login1(), "org.freedesktop.DBus.Mock", "AddSession",
             {id, QStringLiteral("seat0"), uint{user}, QStringLiteral("someone"), true});
    ASSERT_EQ(added.type(), QDBusMessage::ReplyMessage) << qPrintable(added.errorMessage());
    const QVariantMap properties{{QStringLiteral("Leader"), QVariant(static_cast<uint>(leader))}};
    const QDBusMessage set =
        Call(added.arguments().constFirst().toString(), "org.freedesktop.DBus.Mock",
             "UpdateProperties", {QStringLiteral("org.freedesktop.login1.Session"), properties});
    ASSERT_EQ(set.type(), QDBusMessage::ReplyMessage) << qPrintable(set.errorMessage());
  }

  static QString Name() { return QStringLiteral("test"); }
  static QString Login1() { return QStringLiteral("/org/freedesktop/login1"); }
  // A plain message: an interface object would introspect, and QtDBus leaks what it learns so.
  static QDBusMessage Call(const QString& path, const char* interface, const char* method,
                           const QVariantList& arguments = {}) {
    QDBusMessage call =
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.login1"), path,
                                       QLatin1String(interface), QLatin1String(method));
    call.setArguments(arguments);
    return QDBusConnection(Name()).call(call);
  }

  QTemporaryDir folder_;
  QString socket_;
  Program bus_;
  Program login1_;
};

TEST_F(SessionLeader, Login1DecidesWhereThereIsOneAndTheProcessTableElsewhere) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root: a session of another user is made";
  // By the process table a leader of Anna's; by login1 of nobody's.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const Sleeper byTable([&] {
    setsid();
    if (fork() == 0) {
      (void)!setresuid(kAnna, kAnna, kAnna);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const pid_t self = getpid();
      (void)!write(ready[1], &self, sizeof(self));
      for (;;) pause();
    }
  });
  pid_t member = 0;
  ASSERT_EQ(read(ready[0], &member, sizeof(member)), static_cast<ssize_t>(sizeof(member)));
  const Sleeper byLogin1;  // the other way round

  EXPECT_TRUE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "no bus";
  EXPECT_FALSE(IsSessionLeaderOf(byTable.Pid(), kBert)) << "not a member";
  EXPECT_FALSE(IsSessionLeaderOf(member, kAnna)) << "a member, not the leader";
  ASSERT_NO_FATAL_FAILURE(StartBus());
  EXPECT_TRUE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "no login1";
  EXPECT_FALSE(IsSessionLeaderOf(byLogin1.Pid(), kAnna)) << "no login1";

  ASSERT_NO_FATAL_FAILURE(StartLogin1());
  EXPECT_FALSE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "login1 knows no session";
  ASSERT_NO_FATAL_FAILURE(AddSession(QStringLiteral("b1"), kBert, byTable.Pid()));
  ASSERT_NO_FATAL_FAILURE(AddSession(QStringLiteral("a1"), kAnna, getpid()));
  ASSERT_NO_FATAL_FAILURE(AddSession(QStringLiteral("a2"), kAnna, byLogin1.Pid()));
  EXPECT_TRUE(IsSessionLeaderOf(byLogin1.Pid(), kAnna)) << "of her second session";
  EXPECT_FALSE(IsSessionLeaderOf(byLogin1.Pid(), kBert));
  EXPECT_FALSE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "Bert's";

  login1_.Signal(SIGSTOP);
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(IsSessionLeaderOf(byLogin1.Pid(), kAnna)) << "no answer is no";
  EXPECT_FALSE(IsSessionLeaderOf(byTable.Pid(), kAnna)) << "no answer is no";
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
  for (const int fd : ready) close(fd);
}

}  // namespace
}  // namespace vardell::server
