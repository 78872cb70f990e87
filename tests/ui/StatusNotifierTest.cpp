// The status item on the session bus, read back as a panel does. The first tray icon of a process
// decides where all of them go: what a system tray shows is in a program of its own.
#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QTemporaryDir>

#include "platform/linux/LinuxStatusBar.h"
#include "tests/support/FakeScreens.h"
#include "tests/support/Program.h"
#include "tests/support/QtEnvironment.h"
#include "ui/MessagePanel.h"
#include "ui/StatusItem.h"

namespace vardell {
namespace {

using namespace test;
using namespace Qt::StringLiterals;

const std::string kWatcher = "org.kde.StatusNotifierWatcher";

// The first group of each match.
QStringList Matches(const QString& text, const char* expression) {
  QStringList found;
  for (const auto& match : QRegularExpression(QLatin1String(expression)).globalMatch(text))
    found += match.captured(1);
  return found;
}

class StatusNotifierTest : public testing::Test {
 protected:
  // What dbus-send prints; empty where the call fails.
  QString Call(const std::string& service, const std::string& path,
               std::vector<std::string> methodAndArguments) {
    std::vector<std::string> command{"dbus-send", "--session", "--print-reply", "--dest=" + service,
                                     path};
    command.insert(command.end(), methodAndArguments.begin(), methodAndArguments.end());
    const std::string output = folder_.filePath(QString::number(++calls_)).toStdString();
    Program program(command, {.output = output});
    EXPECT_TRUE(WaitUntil([&] { return !program.IsRunning(); }));
    return program.Wait() == 0 ? program.Output() : QString();
  }
  QString Menu(const std::string& service, std::vector<std::string> methodAndArguments) {
    methodAndArguments[0] = "com.canonical.dbusmenu." + methodAndArguments[0];
    return Call(service, "/MenuBar", methodAndArguments);
  }
  bool IsReachable(const std::string& service) {
    return !Call(service, "/", {"org.freedesktop.DBus.Peer.Ping"}).isEmpty();
  }

  void StartWatcher(const std::vector<std::string>& arguments = {"host"}) {
    std::vector<std::string> command{"/usr/bin/python3",
                                     VARDELL_SOURCE_DIR "/tests/support/StatusNotifierWatcher.py"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    watcher_ = Program(command, {});
    ASSERT_TRUE(WaitUntil([&] { return IsReachable(kWatcher); }));
  }
  QString CallWatcher(const std::string& method) {
    return Call(kWatcher, "/StatusNotifierWatcher", {kWatcher + "." + method});
  }
  // The one item that the watcher has; empty where none comes, or several are there.
  std::string WaitForItem() {
    QStringList items;
    EXPECT_TRUE(WaitUntil([&] {
      items = Matches(CallWatcher("Items"), "string \"(.*)\"");
      return !items.isEmpty();
    }));
    return items.size() == 1 ? items[0].toStdString() : "";
  }

  LinuxStatusBar bar;
  std::function<void()> menuOpens = [] {};
  int locked = 0;
  std::unique_ptr<StatusItem> item =
      CreateStatusItem({bar, [this] { menuOpens(); }, [this] { ++locked; }});
  Program watcher_;

 private:
  QTemporaryDir folder_;
  int calls_ = 0;
};

TEST_F(StatusNotifierTest, WaitsForTheHostOfAWatcherAlthoughASystemTrayIsThere) {
  StartWatcher({});
  const Program trayer({"trayer"}, {.output = "/dev/null"});
  ASSERT_TRUE(
      WaitUntil([] { return XcbDesktop::Open()->HasSelectionOwner("_NET_SYSTEM_TRAY_S0"); }));
  CallWatcher("Items");
  EXPECT_FALSE(bar.IsKnown());
  EXPECT_NE(CallWatcher("HostComes"), "");
  EXPECT_TRUE(WaitUntil([&] { return bar.IsKnown(); }, 3s)) << "it would soon take the tray";
  EXPECT_NE(WaitForItem(), "");
}

TEST_F(StatusNotifierTest, APanelReadsTheMenuAndUsesIt) {
  const QString name = u"Tom & Jerry_2 & Co"_s;
  StartWatcher();
  const std::string service = WaitForItem();
  SetAppCreditLine(*item, 7, name, 5.0);
  menuOpens = [&] { SetAppCreditLine(*item, 7, name, 4.0); };
  Menu(service, {"AboutToShow", "int32:0"});
  const QString layout = Menu(service, {"GetLayout", "int32:0", "int32:-1", "array:string:"});
  QString line = Matches(layout, "\"label\"\\s+variant\\s+string \"(.*)\"").value(0);
  line.replace(QRegularExpression(u"_(.)"_s), u"\\1"_s);  // as drawn
  EXPECT_TRUE(line.contains(name) && line.contains(u"4 minutes")) << line.toStdString();

  const QStringList ids = Matches(layout, "struct \\{\\s+int32 (\\d+)");
  EXPECT_EQ(ids.size(), 5) << "the menu itself, and four lines";
  for (const QString& id : ids)
    Menu(service,
         {"Event", "int32:" + id.toStdString(), "string:clicked", "variant:int32:0", "uint32:0"});
  EXPECT_EQ(locked, 1);
}

TEST_F(StatusNotifierTest, NoMenuOpensOverAPanel) {
  StartWatcher();
  const std::string service = WaitForItem();
  const auto opens = [&] {
    Call(service, "/StatusNotifierItem",
         {"org.kde.StatusNotifierItem.Activate", "int32:100", "int32:100"});
    return item->Menu().isVisible();
  };
  FakeScreens screens;
  auto panel = std::make_unique<MessagePanel>(
      PanelUse::Lock, kMessageColour, [] { return QString(); }, screens, nullptr);
  panel->Appear();
  EXPECT_FALSE(opens());
  panel.reset();
  EXPECT_TRUE(opens());
}

TEST_F(StatusNotifierTest, ComesBackWithTheWatcherUnlessItIsToggledOff) {
  StartWatcher();
  const std::string service = WaitForItem();
  watcher_.End(SIGKILL);
  StartWatcher();
  EXPECT_EQ(WaitForItem(), service);

  ToggleStatusItem(*item);
  EXPECT_FALSE(IsReachable(service));
  watcher_.End(SIGKILL);
  ToggleStatusItem(*item);
  ToggleStatusItem(*item);
  StartWatcher();
  ToggleStatusItem(*item);
  const std::string again = WaitForItem();
  EXPECT_NE(again, service);
  EXPECT_NE(Menu(again, {"AboutToShow", "int32:0"}), "");
}

}  // namespace
}  // namespace vardell
