// What a program shows, as a status bar and a screen reader are told it on the session bus. Needs a
// QCoreApplication.
#pragma once

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>

#include "tests/support/Program.h"

namespace vardell::test {

using namespace Qt::StringLiterals;

// Nothing where the call fails; `method` with its interface.
inline QVariantList CallOnBus(const QString& service, const QString& path, const QString& method,
                              const QVariantList& arguments = {}) {
  QDBusMessage call = QDBusMessage::createMethodCall(service, path, method.section(u'.', 0, -2),
                                                     method.section(u'.', -1));
  call.setArguments(arguments);
  return QDBusConnection::sessionBus().call(call).arguments();
}

inline bool IsOnBus(const QString& name) {
  return QDBusConnection::sessionBus().interface()->isServiceRegistered(name);
}

// Up to where it owns `name`.
inline Program StartService(const QString& name, std::vector<std::string> script) {
  script.insert(script.begin(), "/usr/bin/python3");
  Program service(script, {.output = "/dev/null"});
  (void)WaitUntil([&] { return IsOnBus(name); });
  return service;
}

class StatusBarReader {
 public:
  void Start() {
    const std::string script = VARDELL_SOURCE_DIR "/tests/support/StatusNotifierWatcher.py";
    watcher_ = StartService(kWatcher, {script, "host"});
  }
  // The item's name on the bus; null: there is none.
  QString Item() const {
    const auto items = CallOnBus(kWatcher, u"/StatusNotifierWatcher"_s, kWatcher + u".Items"_s);
    for (const QString& item : items.value(0).toStringList()) {
      if (IsOnBus(item)) return item;
    }
    return {};
  }
  void OpenMenu() const { (void)CallMenu(u"AboutToShow"_s, {0}); }
  // The lines of the menu, top to bottom; a separator is empty. `clicked` is clicked.
  QStringList Menu(const QString& clicked = u"none"_s) const {
    QStringList labels;
    QList<QDBusVariant> lines;
    (void)ReadLine(CallMenu(u"GetLayout"_s, {0, -1, QStringList()}).value(1), &lines);
    for (const QDBusVariant& line : lines) {
      QList<QDBusVariant> below;
      const auto [id, properties] = ReadLine(line.variant(), &below);
      labels += properties[u"label"_s].toString();
      if (labels.last() != clicked) continue;
      const auto data = QVariant::fromValue(QDBusVariant(0));
      (void)CallMenu(u"Event"_s, {id, u"clicked"_s, data, 0u});
    }
    return labels;
  }

 private:
  static std::pair<int, QVariantMap> ReadLine(const QVariant& line, QList<QDBusVariant>* below) {
    std::pair<int, QVariantMap> read;
    const auto argument = line.value<QDBusArgument>();
    argument.beginStructure();
    argument >> read.first >> read.second >> *below;
    argument.endStructure();
    return read;
  }
  QVariantList CallMenu(const QString& method, const QVariantList& arguments) const {
    return CallOnBus(Item(), u"/MenuBar"_s, u"com.canonical.dbusmenu."_s + method, arguments);
  }

  const QString kWatcher = u"org.kde.StatusNotifierWatcher"_s;
  Program watcher_;
};

// Reads one Qt program that starts after it. The accessibility bus is the session bus here.
class ScreenReader {
 public:
  void Start() {
    const QString bus = u"org.a11y.Bus"_s;
    const std::string name = bus.toStdString();
    mock_ = StartService(bus, {"-m", "dbusmock", "--session", name, "/org/a11y/bus", name});
    const QString mock = u"org.freedesktop.DBus.Mock."_s;
    const QString address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
    CallOnBus(bus, u"/org/a11y/bus"_s, mock + u"AddMethod"_s,
              {bus, u"GetAddress"_s, QString(), u"s"_s, u"ret = '%1'"_s.arg(address)});
    CallOnBus(bus, u"/org/a11y/bus"_s, mock + u"AddProperties"_s,
              {u"org.a11y.Status"_s,
               QVariantMap{{u"IsEnabled"_s, true}, {u"ScreenReaderEnabled"_s, true}}});
  }

  // The names of the windows that are shown and contain `words`.
  QStringList Windows(const QString& words = {}) {
    const QString root = u"/org/a11y/atspi/accessible/root"_s;
    const QStringList all = QDBusConnection::sessionBus().interface()->registeredServiceNames();
    for (const QString& service : program_.isEmpty() ? all : QStringList()) {
      if (service.startsWith(u':') && !Name(service, root).isEmpty()) program_ = service;
    }
    QStringList names;
    QList<std::pair<QString, QDBusObjectPath>> windows;
    const QString method = u"org.a11y.atspi.Accessible.GetChildren"_s;
    const QVariantList answer = CallOnBus(program_, root, method);
    if (!answer.isEmpty()) answer[0].value<QDBusArgument>() >> windows;
    for (const auto& [service, path] : windows) names += Name(service, path.path());
    return names.filter(words);
  }

 private:
  static QString Name(const QString& service, const QString& path) {
    const auto answer = CallOnBus(service, path, u"org.freedesktop.DBus.Properties.Get"_s,
                                  {u"org.a11y.atspi.Accessible"_s, u"Name"_s});
    return answer.value(0).value<QDBusVariant>().variant().toString();
  }

  Program mock_;
  QString program_;
};

}  // namespace vardell::test
