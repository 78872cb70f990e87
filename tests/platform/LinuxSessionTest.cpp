#include "platform/linux/LinuxSession.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusObjectPath>

#include "tests/support/Login1.h"

namespace vardell {
namespace {

using namespace test;

constexpr pid_t kLeader = 4242;
const QString kSessionPath = Login1::SessionPath(u"s1"_s);

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

class LinuxSessionTest : public testing::Test {
 protected:
  void StartWithSession(bool active, uid_t user = getuid(), pid_t leader = kLeader) {
    ASSERT_NO_FATAL_FAILURE(login1.StartBus());
    ASSERT_NO_FATAL_FAILURE(login1.Start());
    login1.AddSession(u"s1"_s, user, leader, active);
  }
  static void Update(const QVariantMap& properties) { Login1::Update(u"s1"_s, properties); }
  static void Answer(const QString& method, quint32 argument, const QString& path) {
    Login1::Mock(kLogin1Path, u"AddMethod"_s,
                 {kLogin1 + u".Manager"_s, method, u"u"_s, u"o"_s,
                  u"ret = '%1' if args[0] == %2 else '/no'"_s.arg(path).arg(argument)});
  }
  static void AnswerByPid() {
    Answer(u"GetSessionByPID"_s, static_cast<quint32>(getpid()), kSessionPath);
  }
  // The display of the user whom login1 tells to be ours.
  static void AnswerByDisplay(const QString& session, uid_t user = getuid()) {
    const QString userPath = kLogin1Path + u"/user/%1"_s.arg(user);
    Answer(u"GetUser"_s, getuid(), userPath);
    QDBusArgument display;
    display.beginStructure();
    display << u"s1"_s << QDBusObjectPath(session);
    display.endStructure();
    const QVariant value = QVariant::fromValue(QDBusVariant(QVariant::fromValue(display)));
    Login1::Tell(userPath, u"org.freedesktop.DBus.Properties.Set"_s,
                 {kLogin1 + u".User"_s, u"Display"_s, value});
    // As login1 says of every login that comes or goes.
    Login1::Mock(kLogin1Path, u"EmitSignal"_s,
                 {kLogin1 + u".Manager"_s, u"SessionRemoved"_s, u"so"_s,
                  QVariantList{u"s2"_s, u"/session/s2"_s}});
  }
  static void ExpectUnknown(LinuxSession& session) {
    EXPECT_TRUE(session.IsActive());
    EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
  }
  static void ExpectInactive(LinuxSession& session) {
    EXPECT_FALSE(session.IsActive());
    EXPECT_EQ(session.LeaderPid(), kLeader);
  }
  void Watch(LinuxSession& session) {
    session.Watch([this](bool active) { changes_.push_back(active); });
  }
  bool WaitForChanges(const std::vector<bool>& changes) {
    return WaitUntil([&] { return changes_ == changes; });
  }
  static std::int32_t LeaderWithoutLogin1() { return getsid(0) == getpid() ? 0 : getsid(0); }

  CoreApplication application_;
  Login1 login1;
  std::vector<bool> changes_;
};

TEST_F(LinuxSessionTest, IsActiveAndLedByGetsidWhereNobodyKnowsBetter) {
  ExpectUnknown(*std::make_unique<LinuxSession>());  // no bus
  login1.StartBus();
  ExpectUnknown(*std::make_unique<LinuxSession>());  // no login1
  login1.Start();
  login1.AddSession(u"s1"_s, getuid(), kLeader, false);
  setenv("XDG_SESSION_ID", "s1", 1);  // anybody's to set
  LinuxSession session;
  unsetenv("XDG_SESSION_ID");
  ExpectUnknown(session);
}

TEST_F(LinuxSessionTest, InNoSessionIsTheOneOnTheUsersDisplay) {
  StartWithSession(false);
  AnswerByDisplay(kSessionPath);
  LinuxSession session;
  ExpectInactive(session);
  AnswerByDisplay(u"/"_s);
  EXPECT_TRUE(WaitUntil([&] { return session.IsActive(); })) << "of a login that is over";
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

TEST_F(LinuxSessionTest, OfAnotherUserIsNotFollowed) {
  StartWithSession(false, getuid() + 1);
  AnswerByDisplay(kSessionPath, getuid() + 1);
  ExpectUnknown(*std::make_unique<LinuxSession>());
}

TEST_F(LinuxSessionTest, LeaderThatCannotBeEndedIsNotBelieved) {
  StartWithSession(true, getuid(), 1);
  AnswerByPid();
  LinuxSession session;
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
  Update({{u"Leader"_s, static_cast<quint32>(getpid())}});
  EXPECT_TRUE(WaitUntil([&] { return session.LeaderPid() == 0; })) << "not this process itself";
}

TEST_F(LinuxSessionTest, TellsEachSwitchOnceAndIsActiveWhenTheBusIsLost) {
  StartWithSession(true);
  AnswerByPid();
  LinuxSession session;
  Watch(session);
  Update({{u"Active"_s, false}});
  ASSERT_TRUE(WaitForChanges({false}));
  ExpectInactive(session);
  Update({{u"Active"_s, false}, {u"IdleHint"_s, true}});
  Update({{u"Active"_s, true}});
  ASSERT_TRUE(WaitForChanges({false, true}));
  EXPECT_TRUE(session.IsActive());
  Update({{u"Active"_s, false}});
  ASSERT_TRUE(WaitForChanges({false, true, false}));
  login1.bus.End(SIGKILL);
  ASSERT_TRUE(WaitForChanges({false, true, false, true}));
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

TEST_F(LinuxSessionTest, Login1MayComeLateGoAndComeBack) {
  login1.StartBus();
  LinuxSession session;
  Watch(session);
  login1.Start({"-c", kKnowingLogin1});
  ASSERT_TRUE(WaitForChanges({false}));
  ExpectInactive(session);
  login1.program.End(SIGKILL);
  ASSERT_TRUE(WaitForChanges({false, true}));
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

}  // namespace
}  // namespace vardell
