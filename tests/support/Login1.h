// A system bus of the test's own, and a mock of login1 on it. Always at the same address: libdbus
// asks the environment only once in a process.
#pragma once

#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QTemporaryDir>

#include "tests/support/Program.h"

namespace vardell::test {

using namespace Qt::StringLiterals;

inline const QString kLogin1 = u"org.freedesktop.login1"_s;
inline const QString kLogin1Path = u"/org/freedesktop/login1"_s;

class Login1 {
 public:
  Login1() { setenv("DBUS_SYSTEM_BUS_ADDRESS", Address().c_str(), 1); }
  ~Login1() { QDBusConnection::disconnectFromBus(u"test"_s); }

  void StartBus() {
    unlink(Path("bus").c_str());
    bus = Program({"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + Address()},
                  {});
    ASSERT_TRUE(WaitUntil([] {
      QDBusConnection::disconnectFromBus(u"test"_s);
      return Bus().isConnected();
    }));
  }
  // The mock, or what else Python runs.
  void Start(std::vector<std::string> python = {"-m", "dbusmock", "--system", "--template",
                                                "logind"}) {
    python.insert(python.begin(), "/usr/bin/python3");
    program = Program(python, {.output = Path("login1.log")});
    ASSERT_TRUE(WaitUntil([] {
      return Call(kLogin1Path, u"org.freedesktop.DBus.Peer.Ping"_s).type() ==
             QDBusMessage::ReplyMessage;
    }));
  }

  // `method` with its interface. A plain message: an interface object would introspect, and QtDBus
  // leaks what it learns so.
  static QDBusMessage Call(const QString& path, const QString& method,
                           const QVariantList& arguments = {}) {
    QDBusMessage call = QDBusMessage::createMethodCall(kLogin1, path, method.section(u'.', 0, -2),
                                                       method.section(u'.', -1));
    call.setArguments(arguments);
    return Bus().call(call, QDBus::Block, 5000);
  }
  static void Tell(const QString& path, const QString& method, const QVariantList& arguments) {
    const QDBusMessage answer = Call(path, method, arguments);
    ASSERT_EQ(answer.type(), QDBusMessage::ReplyMessage) << answer.errorMessage().toStdString();
  }
  static void Mock(const QString& path, const QString& method, const QVariantList& arguments) {
    Tell(path, u"org.freedesktop.DBus.Mock."_s + method, arguments);
  }
  static QString SessionPath(const QString& id) { return kLogin1Path + u"/session/"_s + id; }
  static void AddSession(const QString& id, uid_t user, pid_t leader, bool active = true) {
    Mock(kLogin1Path, u"AddSession"_s, {id, u"seat0"_s, user, u"someone"_s, active});
    Update(id, {{u"Leader"_s, static_cast<quint32>(leader)}});
  }
  static void Update(const QString& id, const QVariantMap& properties) {
    Mock(SessionPath(id), u"UpdateProperties"_s, {kLogin1 + u".Session"_s, properties});
  }

  Program bus;
  Program program;

 private:
  static std::string Path(const char* name) {
    static const QTemporaryDir folder(u"/tmp/vardell-login1-XXXXXX"_s);
    return folder.filePath(QString::fromLatin1(name)).toStdString();
  }
  static std::string Address() { return "unix:path=" + Path("bus"); }
  static QDBusConnection Bus() {
    return QDBusConnection::connectToBus(QString::fromStdString(Address()), u"test"_s);
  }
};

}  // namespace vardell::test
