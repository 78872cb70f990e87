#include "platform/linux/LinuxSession.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QTemporaryDir>

#include "tests/support/Program.h"

namespace vardell {
namespace {

using test::Program;
using test::WaitUntil;

constexpr pid_t kLeader = 4242;
const QString kSessionPath = QStringLiteral("/org/freedesktop/login1/session/s1");

// A login1 that knows the session before anybody can ask for it, as a restarted one does.
constexpr char kKnowingLogin1[] = R"(
import dbus, dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib
DBusGMainLoop(set_as_default=True)
bus = dbus.SystemBus()
path = '/org/freedesktop/login1/session/s1'
class Manager(dbus.service.Object):
    @dbus.service.method('org.freedesktop.login1.Manager', in_signature='u', out_signature='o')
    def GetSessionByPID(self, pid):
        return path
class Session(dbus.service.Object):
    @dbus.service.method('org.freedesktop.DBus.Properties', in_signature='s', out_signature='a{sv}')
    def GetAll(self, interface):
        return {'Active': False, 'Leader': dbus.UInt32(4242)}
objects = Manager(bus, '/org/freedesktop/login1'), Session(bus, path)
name = dbus.service.BusName('org.freedesktop.login1', bus)
GLib.MainLoop().run()
)";

// A system bus of its own, always at the same address: libdbus asks the environment only once.
class LinuxSessionTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = new QTemporaryDir(QStringLiteral("/tmp/vardell-session-XXXXXX"));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + Socket()).c_str(), 1);
  }
  static void TearDownTestSuite() { delete folder; }
  void TearDown() override {
    QDBusConnection::disconnectFromBus(QStringLiteral("test"));
    unsetenv("XDG_SESSION_ID");
  }

  static std::string Socket() { return folder->path().toStdString() + "/bus"; }
  void StartBus() {
    unlink(Socket().c_str());
    bus_ = Program({"dbus-daemon", "--session", "--nofork", "--address=unix:path=" + Socket()}, {});
    ASSERT_TRUE(WaitUntil([] {
      QDBusConnection::disconnectFromBus(QStringLiteral("test"));
      return Bus().isConnected();
    }));
  }
  static QDBusConnection Bus() {
    return QDBusConnection::connectToBus(
        QStringLiteral("unix:path=") + QString::fromStdString(Socket()), QStringLiteral("test"));
  }
  static bool IsThere() {
    QDBusMessage ask = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
    ask << QStringLiteral("org.freedesktop.login1");
    return Bus().call(ask, QDBus::Block, 1000).arguments().value(0).toBool();
  }
  void StartLogin1() {
    login1_ = Program({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"},
                      {.output = folder->path().toStdString() + "/login1.log"});
    ASSERT_TRUE(WaitUntil(IsThere));
  }
  static void Mock(const QString& path, const QString& method, const QVariantList& arguments) {
    QDBusMessage call =
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.login1"), path,
                                       QStringLiteral("org.freedesktop.DBus.Mock"), method);
    call.setArguments(arguments);
    const QDBusMessage answer = Bus().call(call, QDBus::Block, 5000);
    ASSERT_EQ(answer.type(), QDBusMessage::ReplyMessage) << answer.errorMessage().toStdString();
  }
  static void AddSession(bool active, uid_t user = getuid(), quint32 leader = kLeader) {
    Mock(QStringLiteral("/org/freedesktop/login1"), QStringLiteral("AddSession"),
         {QStringLiteral("s1"), QStringLiteral("seat0"), user, QStringLiteral("child"), active});
    Update({{QStringLiteral("Leader"), leader}});
  }
  static void Update(const QVariantMap& properties) {
    Mock(kSessionPath, QStringLiteral("UpdateProperties"),
         {QStringLiteral("org.freedesktop.login1.Session"), properties});
  }
  static void AnswerByPid() {
    Mock(
        QStringLiteral("/org/freedesktop/login1"), QStringLiteral("AddMethod"),
        {QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("GetSessionByPID"),
         QStringLiteral("u"), QStringLiteral("o"),
         QStringLiteral("ret = '%1' if args[0] == %2 else '/no'").arg(kSessionPath).arg(getpid())});
  }
  void Watch(LinuxSession& session) {
    session.Watch([this](bool active) { changes_.push_back(active); });
  }
  static std::int32_t LeaderWithoutLogin1() { return getsid(0) == getpid() ? 0 : getsid(0); }

  static inline QTemporaryDir* folder = nullptr;
  int argc_ = 1;
  char name_[5] = "test";
  char* argv_[2] = {name_, nullptr};
  QCoreApplication application_{argc_, argv_};
  Program bus_;
  Program login1_;
  std::vector<bool> changes_;
};

TEST_F(LinuxSessionTest, WithoutABusIsActiveAndLedByGetsid) {
  LinuxSession session;
  EXPECT_TRUE(session.IsActive());
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

TEST_F(LinuxSessionTest, WithoutLogin1IsActiveAndLedByGetsid) {
  StartBus();
  LinuxSession session;
  EXPECT_TRUE(session.IsActive());
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

TEST_F(LinuxSessionTest, IsFoundByPidAndReadAtStart) {
  StartBus();
  StartLogin1();
  AddSession(false);
  AnswerByPid();
  LinuxSession session;
  EXPECT_FALSE(session.IsActive());
  EXPECT_EQ(session.LeaderPid(), kLeader);
}

TEST_F(LinuxSessionTest, IsFoundByItsIdWherePidsAreNotAnswered) {
  StartBus();
  StartLogin1();
  AddSession(false);
  setenv("XDG_SESSION_ID", "s1", 1);
  LinuxSession session;
  EXPECT_FALSE(session.IsActive());
  EXPECT_EQ(session.LeaderPid(), kLeader);
}

TEST_F(LinuxSessionTest, OfAnotherUserIsNotFollowedByItsId) {
  StartBus();
  StartLogin1();
  AddSession(false, getuid() + 1);
  setenv("XDG_SESSION_ID", "s1", 1);
  LinuxSession session;
  EXPECT_TRUE(session.IsActive());
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

TEST_F(LinuxSessionTest, LeaderThatCannotBeEndedIsNotBelieved) {
  StartBus();
  StartLogin1();
  AddSession(true, getuid(), 1);
  AnswerByPid();
  LinuxSession session;
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
  Update({{QStringLiteral("Leader"), static_cast<quint32>(getpid())}});
  EXPECT_TRUE(WaitUntil([&] { return session.LeaderPid() == 0; })) << "not this process itself";
}

TEST_F(LinuxSessionTest, TellsEachSwitchOnce) {
  StartBus();
  StartLogin1();
  AddSession(true);
  AnswerByPid();
  LinuxSession session;
  Watch(session);
  Update({{QStringLiteral("Active"), false}});
  ASSERT_TRUE(WaitUntil([&] { return changes_.size() == 1; }));
  Update({{QStringLiteral("Active"), false}, {QStringLiteral("IdleHint"), true}});
  Update({{QStringLiteral("Active"), true}});
  ASSERT_TRUE(WaitUntil([&] { return changes_.size() == 2; }));
  EXPECT_EQ(changes_, (std::vector<bool>{false, true}));
  EXPECT_TRUE(session.IsActive());
}

TEST_F(LinuxSessionTest, Login1MayComeLateGoAndComeBack) {
  StartBus();
  LinuxSession session;
  Watch(session);
  login1_ = Program({"/usr/bin/python3", "-c", kKnowingLogin1},
                    {.output = folder->path().toStdString() + "/login1.log"});
  ASSERT_TRUE(WaitUntil([&] { return changes_ == std::vector<bool>{false}; }));
  EXPECT_FALSE(session.IsActive());
  EXPECT_EQ(session.LeaderPid(), kLeader);

  login1_.End(SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return changes_ == (std::vector<bool>{false, true}); }));
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

TEST_F(LinuxSessionTest, LostBusLeavesTheSessionActive) {
  StartBus();
  StartLogin1();
  AddSession(false);
  AnswerByPid();
  LinuxSession session;
  Watch(session);
  bus_.End(SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return changes_ == std::vector<bool>{true}; }));
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

}  // namespace
}  // namespace vardell
