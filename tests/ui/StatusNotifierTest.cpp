// The status item on the session bus, read back as a panel does. The first tray icon of a process
// decides where all of them go: what a system tray shows is in a program of its own.
#include <gtest/gtest.h>

#include <QApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusVariant>

#include "platform/linux/LinuxStatusBar.h"
#include "tests/support/Program.h"
#include "tests/support/QtEnvironment.h"
#include "ui/StatusItem.h"

namespace vardell {
namespace {

using test::Program;
using test::WaitUntil;
using namespace Qt::StringLiterals;

const auto* const kEnvironment =
    testing::AddGlobalTestEnvironment(new test::QtEnvironment<QApplication>);

const QString kWatcher = u"org.kde.StatusNotifierWatcher"_s;
const QString kMenu = u"com.canonical.dbusmenu"_s;

QVariantList Call(const QString& service, const QString& path, const QString& interface,
                  const QString& method, const QVariantList& arguments) {
  QDBusMessage call = QDBusMessage::createMethodCall(service, path, interface, method);
  call.setArguments(arguments);
  const QDBusPendingCall pending = QDBusConnection::sessionBus().asyncCall(call);
  EXPECT_TRUE(WaitUntil([&] { return pending.isFinished(); }));
  EXPECT_EQ(pending.reply().errorMessage(), QString());
  return pending.reply().arguments();
}

bool IsOnBus(const QString& name) {
  return QDBusConnection::sessionBus().interface()->isServiceRegistered(name);
}

class Watcher {
 public:
  void Start(bool withHost) {
    program_ = Program({"/usr/bin/python3", "-m", "dbusmock", "--session", "--template",
                        VARDELL_SOURCE_DIR "/tests/support/StatusNotifierWatcher.py", "-p",
                        withHost ? "{\"host\": true}" : "{}"},
                       {.output = "/dev/null"});
    ASSERT_TRUE(WaitUntil([] { return IsOnBus(kWatcher); }));
  }
  void End() {
    program_.End(SIGKILL);
    ASSERT_TRUE(WaitUntil([] { return !IsOnBus(kWatcher); }));
  }
  void Restart() {
    End();
    Start(true);
  }
  void HostComes() {
    const QString mock = u"org.freedesktop.DBus.Mock"_s;
    Call(kWatcher, kPath, mock, u"UpdateProperties"_s,
         {kWatcher, QVariantMap{{u"IsStatusNotifierHostRegistered"_s, true}}});
    Call(kWatcher, kPath, mock, u"EmitSignal"_s,
         {kWatcher, u"StatusNotifierHostRegistered"_s, QString(), QVariantList()});
  }
  QStringList Items() const {
    const QVariantList answer = Call(kWatcher, kPath, u"org.freedesktop.DBus.Properties"_s,
                                     u"Get"_s, {kWatcher, u"RegisteredStatusNotifierItems"_s});
    return qvariant_cast<QDBusVariant>(answer.value(0)).variant().toStringList();
  }

 private:
  const QString kPath = u"/StatusNotifierWatcher"_s;
  Program program_;
};

struct MenuItem {
  int id = 0;
  QString drawn;  // as a panel draws the label: "_" marks a letter, "__" is one
  bool isEnabled = false;
};

QString Drawn(const QString& label) {
  QString drawn;
  for (qsizetype i = 0; i < label.size(); ++i) {
    if (label[i] == u'_' && ++i == label.size()) break;
    drawn += label[i];
  }
  return drawn;
}

std::vector<MenuItem> Layout(const QString& item) {
  const QVariantList answer =
      Call(item, u"/MenuBar"_s, kMenu, u"GetLayout"_s, {0, -1, QStringList()});
  const auto root = answer.value(1).value<QDBusArgument>();
  const auto begin = [](const QDBusArgument& node, int& id, QVariantMap& properties) {
    node.beginStructure();
    node >> id >> properties;
  };
  std::vector<MenuItem> items;
  int id = 0;
  QVariantMap properties;
  begin(root, id, properties);
  root.beginArray();
  while (!root.atEnd()) {
    QDBusVariant child;
    root >> child;
    const auto node = child.variant().value<QDBusArgument>();
    begin(node, id, properties);
    items.push_back({id, Drawn(properties.value(u"label"_s).toString()),
                     properties.value(u"enabled"_s).toBool()});
    node.beginArray();
    node.endArray();
    node.endStructure();
  }
  root.endArray();
  root.endStructure();
  return items;
}

class StatusNotifierTest : public testing::Test {
 protected:
  bool WaitForItems(int number) {
    return WaitUntil([&] { return watcher.Items().size() == number; });
  }

  Watcher watcher;
  LinuxStatusBar bar;
  std::function<void()> menuOpens = [] {};
  int locked = 0;
  std::unique_ptr<StatusItem> item =
      CreateStatusItem({bar, [this] { menuOpens(); }, [this] { ++locked; }});
};

TEST_F(StatusNotifierTest, WaitsForTheHostOfAWatcherAlthoughASystemTrayIsThere) {
  watcher.Start(false);
  const Program trayer({"trayer"}, {.output = "/dev/null"});
  ASSERT_TRUE(
      WaitUntil([] { return XcbDesktop::Open()->HasSelectionOwner("_NET_SYSTEM_TRAY_S0"); }));
  EXPECT_EQ(watcher.Items(), QStringList());
  EXPECT_FALSE(bar.IsKnown());
  watcher.HostComes();
  EXPECT_TRUE(WaitForItems(1));
}

TEST_F(StatusNotifierTest, APanelReadsTheMenuAndUsesIt) {
  watcher.Start(true);
  ASSERT_TRUE(WaitForItems(1));
  const QString service = watcher.Items().constFirst();
  SetAppCreditLine(*item, 7, u"Tom & Jerry_2 & Co"_s, 5.0);
  menuOpens = [&] { SetAppCreditLine(*item, 7, u"Tom & Jerry_2 & Co"_s, 4.0); };
  Call(service, u"/MenuBar"_s, kMenu, u"AboutToShow"_s, {0});
  const std::vector<MenuItem> menu = Layout(service);
  ASSERT_EQ(menu.size(), 4u);
  EXPECT_TRUE(menu[0].drawn.contains(u"Tom & Jerry_2 & Co"_s)) << menu[0].drawn.toStdString();
  EXPECT_TRUE(menu[0].drawn.contains(u"4 minutes"_s)) << menu[0].drawn.toStdString();
  for (const MenuItem& line : menu) {
    EXPECT_EQ(line.isEnabled, &line == &menu.back());
    Call(service, u"/MenuBar"_s, kMenu, u"Event"_s,
         {line.id, u"clicked"_s, QVariant::fromValue(QDBusVariant(0)), 0u});
  }
  EXPECT_EQ(locked, 1);
}

TEST_F(StatusNotifierTest, ComesBackWithTheWatcherUnlessItIsToggledOff) {
  watcher.Start(true);
  ASSERT_TRUE(WaitForItems(1));
  watcher.Restart();
  EXPECT_TRUE(WaitForItems(1));

  const QString service = watcher.Items().constFirst();
  ToggleStatusItem(*item);
  EXPECT_TRUE(WaitUntil([&] { return !IsOnBus(service); }));
  watcher.Restart();
  ToggleStatusItem(*item);
  EXPECT_TRUE(WaitForItems(1)) << "only the one toggled on";

  watcher.End();
  ToggleStatusItem(*item);
  ToggleStatusItem(*item);
  watcher.Start(true);
  ASSERT_TRUE(WaitForItems(1));
  EXPECT_EQ(Layout(watcher.Items().constFirst()).size(), 4u);
}

}  // namespace
}  // namespace vardell
