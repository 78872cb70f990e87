#include "platform/linux/LinuxSession.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QTemporaryDir>

#include "tests/support/Program.h"

namespace vardell {
namespace {

using test::Program;
using test::WaitUntil;

using namespace Qt::StringLiterals;

constexpr pid_t kLeader = 4242;
const QString kLogin1 = u"org.freedesktop.login1"_s;
const QString kManagerPath = u"/org/freedesktop/login1"_s;
const QString kSessionPath = u"/org/freedesktop/login1/session/s1"_s;

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
    folder = new QTemporaryDir(u"/tmp/vardell-session-XXXXXX"_s);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + Socket()).c_str(), 1);
  }
  static void TearDownTestSuite() { delete folder; }
  void TearDown() override { QDBusConnection::disconnectFromBus(u"test"_s); }

  static std::string Socket() { return folder->path().toStdString() + "/bus"; }
  void StartBus() {
    unlink(Socket().c_str());
    bus_ = Program({"dbus-daemon", "--session", "--nofork", "--address=unix:path=" + Socket()}, {});
    ASSERT_TRUE(WaitUntil([] {
      QDBusConnection::disconnectFromBus(u"test"_s);
      return Bus().isConnected();
    }));
  }
  static QDBusConnection Bus() {
    return QDBusConnection::connectToBus(u"unix:path="_s + QString::fromStdString(Socket()),
                                         u"test"_s);
  }
  static bool IsThere() {
    QDBusMessage ask = QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/"_s,
                                                      u"org.freedesktop.DBus"_s, u"NameHasOwner"_s);
    ask << kLogin1;
    return Bus().call(ask, QDBus::Block, 1000).arguments().value(0).toBool();
  }
  void StartLogin1() {
    login1_ = Program({"/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind"},
                      {.output = folder->path().toStdString() + "/login1.log"});
    ASSERT_TRUE(WaitUntil(IsThere));
  }
  static void Call(const QString& path, const QString& interface, const QString& method,
                   const QVariantList& arguments) {
    QDBusMessage call = QDBusMessage::createMethodCall(kLogin1, path, interface, method);
    call.setArguments(arguments);
    const QDBusMessage answer = Bus().call(call, QDBus::Block, 5000);
    ASSERT_EQ(answer.type(), QDBusMessage::ReplyMessage) << answer.errorMessage().toStdString();
  }
  static void Mock(const QString& path, const QString& method, const QVariantList& arguments) {
    Call(path, u"org.freedesktop.DBus.Mock"_s, method, arguments);
  }
  static void AddSession(bool active, uid_t user = getuid(), quint32 leader = kLeader) {
    Mock(kManagerPath, u"AddSession"_s, {u"s1"_s, u"seat0"_s, user, u"child"_s, active});
    Update({{u"Leader"_s, leader}});
  }
  void StartWithSession(bool active, uid_t user = getuid(), quint32 leader = kLeader) {
    ASSERT_NO_FATAL_FAILURE(StartBus());
    ASSERT_NO_FATAL_FAILURE(StartLogin1());
    AddSession(active, user, leader);
  }
  static void Update(const QVariantMap& properties) {
    Mock(kSessionPath, u"UpdateProperties"_s, {kLogin1 + u".Session"_s, properties});
  }
  static void Answer(const QString& method, quint32 argument, const QString& path) {
    Mock(kManagerPath, u"AddMethod"_s,
         {kLogin1 + u".Manager"_s, method, u"u"_s, u"o"_s,
          u"ret = '%1' if args[0] == %2 else '/no'"_s.arg(path).arg(argument)});
  }
  static void AnswerByPid() {
    Answer(u"GetSessionByPID"_s, static_cast<quint32>(getpid()), kSessionPath);
  }
  // The display of the user whom login1 tells to be ours.
  static void AnswerByDisplay(const QString& session, uid_t user = getuid()) {
    const QString userPath = kManagerPath + u"/user/%1"_s.arg(user);
    Answer(u"GetUser"_s, getuid(), userPath);
    QDBusArgument display;
    display.beginStructure();
    display << u"s1"_s << QDBusObjectPath(session);
    display.endStructure();
    const QVariant value = QVariant::fromValue(QDBusVariant(QVariant::fromValue(display)));
    Call(userPath, u"org.freedesktop.DBus.Properties"_s, u"Set"_s,
         {kLogin1 + u".User"_s, u"Display"_s, value});
    // As login1 says of every login that comes or goes.
    Mock(kManagerPath, u"EmitSignal"_s,
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

TEST_F(LinuxSessionTest, IsActiveAndLedByGetsidWhereNobodyKnowsBetter) {
  ExpectUnknown(*std::make_unique<LinuxSession>());  // no bus
  StartBus();
  ExpectUnknown(*std::make_unique<LinuxSession>());  // no login1
  StartLogin1();
  AddSession(false);
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
  LinuxSession session;
  ExpectUnknown(session);
}

TEST_F(LinuxSessionTest, LeaderThatCannotBeEndedIsNotBelieved) {
  StartWithSession(true, getuid(), 1);
  AnswerByPid();
  LinuxSession session;
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
  Update({{u"Leader"_s, static_cast<quint32>(getpid())}});
  EXPECT_TRUE(WaitUntil([&] { return session.LeaderPid() == 0; })) << "not this process itself";
}

TEST_F(LinuxSessionTest, TellsEachSwitchOnce) {
  StartWithSession(true);
  AnswerByPid();
  LinuxSession session;
  Watch(session);
  Update({{u"Active"_s, false}});
  ASSERT_TRUE(WaitUntil([&] { return changes_.size() == 1; }));
  Update({{u"Active"_s, false}, {u"IdleHint"_s, true}});
  Update({{u"Active"_s, true}});
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
  ExpectInactive(session);
  login1_.End(SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return changes_ == (std::vector<bool>{false, true}); }));
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

TEST_F(LinuxSessionTest, IsFoundByPidAndActiveOnceTheBusIsLost) {
  StartWithSession(false);
  AnswerByPid();
  LinuxSession session;
  ExpectInactive(session);
  Watch(session);
  bus_.End(SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return changes_ == std::vector<bool>{true}; }));
  EXPECT_EQ(session.LeaderPid(), LeaderWithoutLogin1());
}

}  // namespace
}  // namespace vardell
