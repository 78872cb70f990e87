// The real agent on a real screen: what stands there, what it does to the count, what gets past it.
#include <QRegularExpression>

#include "tests/integration/ScreenFixture.h"

namespace vardell::test {
namespace {

const QString kLastMinute = u"Toy toy: 1 minute left. Please save"_s;

std::string Answer(const char* question) {
  return Run({"xdotool", question}, {}).output.trimmed().toStdString();
}

class ScreenTest : public ScreenFixture {
 protected:
  // What the terminal of `cat > typed` was given.
  std::string Typed() const {
    QFile file(QString::fromStdString(world.Path("typed")));
    return file.open(QIODevice::ReadOnly) ? file.readAll().toStdString() : "";
  }
  // In the line of an application's last minute; -1 where it has none.
  int SecondsLeft() const {
    static const QRegularExpression kSeconds(u"Toy toy: (\\d+) second"_s);
    const auto match = kSeconds.match(bar.Menu().join(u'|'));
    return match.hasMatch() ? match.captured(1).toInt() : -1;
  }
  bool IsInputFree() { return client.CanTakeKeyboard() || client.CanTakePointer(); }

  SecondClient client;
};

class CreditAlertTest : public ScreenTest, public testing::WithParamInterface<bool> {};

TEST_P(CreditAlertTest, DoesNotStopTheCountAndOutlivesItsApplication) {
  const bool isDialog = GetParam();
  if (isDialog) world.WritePreferences({{u"Don't fade screen"_s, u"1"_s}});
  ASSERT_TRUE(StartAll());
  Program toy = LaunchWithCredit("toy", 1);
  ASSERT_TRUE(ComesUp(kLastMinute));
  world.StartWitness();
  EXPECT_TRUE(world.WaitForClaims("toy", {0, -1}, kPatience + world.Seconds(60)));
  EXPECT_EQ(-SIGKILL, toy.Wait());
  EXPECT_TRUE(WitnessPays(2));
  EXPECT_TRUE(IsUp(kLastMinute));
  // A dialog heeds no key in the first moment that it has the keyboard.
  EXPECT_TRUE(WaitUntil([&] {
    isDialog ? Key("Return") : Click();
    return !IsUp(kLastMinute);
  }));
  EXPECT_TRUE(world.agent.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(Forms, CreditAlertTest, testing::Bool(), [](const auto& row) {
  return std::string(row.param ? "Dialog" : "Panel");
});

TEST_F(ScreenTest, ALockStopsTheCountAndNoKeyGetsPastIt) {
  ASSERT_TRUE(StartAll());
  world.StartWitness();
  ASSERT_TRUE(WitnessPays(1));
  for (const auto& [key, workspace] : {std::pair{"ctrl+alt+Right", "1"}, {"ctrl+alt+Left", "0"}}) {
    Key(key);
    ASSERT_TRUE(WaitUntil([&] { return Answer("get_desktop") == workspace; }));
  }
  std::string active = Answer("getactivewindow");
  Program terminal({"xterm", "-e", "cat > '" + world.Path("typed") + "'"}, {});
  ASSERT_TRUE(WaitUntil([&] { return Answer("getactivewindow") != active; }));
  active = Answer("getactivewindow");
  Type("before");
  ASSERT_TRUE(WaitUntil([&] { return Typed() == "before\n"; }));

  // An open menu of the window manager's keeps the input from the lock until it closes.
  Click(1200, 760, "3");
  ASSERT_TRUE(WaitUntil([&] { return !client.CanTakePointer(); }));
  LockByMenu();
  Key("Escape");
  ASSERT_TRUE(WaitUntil([&] { return !WaitUntil([&] { return IsInputFree(); }, 1s); }));
  const std::string activeUnderLock = Answer("getactivewindow");

  for (const char* key : {"alt+Tab", "ctrl+alt+Tab", "alt+F4", "Escape", "alt+Escape", "alt+space",
                          "ctrl+alt+Right", "super+F2", "super+d", "super+e"}) {
    Key(key);
  }
  Type("past");
  ExpectNothingIsCounted();
  EXPECT_TRUE(IsUp(kLocked));
  EXPECT_EQ(Answer("get_desktop"), "0");
  EXPECT_EQ(Answer("getactivewindow"), activeUnderLock);

  Click(1200, 760, "3");
  EXPECT_TRUE(Goes(kLocked));
  EXPECT_TRUE(client.CanTakePointer()) << "the click has opened a menu";
  EXPECT_TRUE(WaitUntil([&] { return Answer("getactivewindow") == active; }));
  Type("after");
  EXPECT_TRUE(WaitUntil([&] { return Typed() == "before\nafter\n"; })) << Typed();
  EXPECT_TRUE(WitnessPays(Paid() + 1));
}

TEST_F(ScreenTest, HotKeysWorkUnderALockWhateverTheLocksOfTheKeyboardAre) {
  ASSERT_TRUE(StartAll());
  const QString overlay = u"No time limit here."_s;
  for (const std::string lock : {"", "Caps_Lock", "Num_Lock"}) {
    SCOPED_TRACE(lock);
    ASSERT_TRUE(Goes(overlay));
    if (!lock.empty()) Key(lock);
    LockByMenu();
    const QString item = bar.Item();
    Key("ctrl+alt+c");
    EXPECT_TRUE(ComesUp(overlay));
    Key("ctrl+alt+h");
    EXPECT_TRUE(WaitUntil([&] { return !IsOnBus(item); }));
    Key("ctrl+alt+h");
    EXPECT_TRUE(WaitUntil([&] { return !bar.Item().isNull(); }));
    EXPECT_TRUE(IsUp(kLocked));
    if (!lock.empty()) Key(lock);
    Click();
    EXPECT_TRUE(Goes(kLocked));
  }
}

TEST_F(ScreenTest, AClickOnAnyScreenDismissesALock) {
  Tool({"xrandr", "--setmonitor", "*left", "640/100x800/100+0+0", "screen"});
  Tool({"xrandr", "--setmonitor", "right", "640/100x800/100+640+0", "none"});
  world.WritePreferences({{u"Show Lock Badge"_s, u"1"_s}});
  ASSERT_TRUE(StartAll());
  ASSERT_TRUE(WaitUntil([&] {
    const std::vector<QRect> windows = client.UnmanagedWindows();
    return std::find(windows.begin(), windows.end(), QRect(0, 0, 16, 20)) != windows.end();
  }));
  Tool({"xdotool", "mousemove", "8", "10", "click", "--repeat", "2", "--delay", "50", "1"});
  EXPECT_TRUE(ComesUp(kLocked)) << "by the badge";
  for (const int x : {960, 320}) {
    if (!IsUp(kLocked)) LockByMenu();
    ASSERT_TRUE(WaitUntil([&] { return !client.CanTakePointer(); }));
    Click(x, 400);
    EXPECT_TRUE(Goes(kLocked)) << x;
  }
  for (const char* monitor : {"left", "right"}) Tool({"xrandr", "--delmonitor", monitor});
}

TEST_F(ScreenTest, TheMenuTellsWhatIsLeftAndGoesOnWhileOpen) {
  world.SetHomeSize(3 << 19);
  world.StartServer();
  world.SetLimits("computer", {"Credit=90"});
  SetQuota("2");
  Program toy = LaunchWithCredit("toy", 1);
  StartDesktop();
  world.StartAgent();
  ASSERT_TRUE(ComesUp(kLastMinute));
  ASSERT_TRUE(WaitUntil([&] { return !bar.Item().isNull(); }));
  bar.OpenMenu();
  const int left = SecondsLeft();
  EXPECT_GT(left, 0);
  EXPECT_TRUE(WaitUntil([&] { return SecondsLeft() < left - 2; }));
  EXPECT_GE(SecondsLeft(), 0);
  QStringList lines = bar.Menu();
  EXPECT_TRUE(lines.takeFirst().startsWith(u"Computer: 1 hour 2"));
  EXPECT_TRUE(lines.takeFirst().startsWith(u"Toy toy: "));
  EXPECT_EQ(lines.join(u'|').toStdString(), "Home folder: 1.50 MB of 2.00 MB||Lock computer");
}

TEST_F(ScreenTest, AlertsOfOneTickComeInTurnALockOverThemAndWhatFallsDueUnderItAfterThem) {
  const QString warning = u"5 minutes left. Please finish"_s;
  const auto up = [&] { return reader.Windows(warning); };
  world.StartServer();
  Program first = LaunchWithCredit("first", 5);
  Program second = LaunchWithCredit("second", 5);
  StartDesktop();
  world.StartAgent();
  ASSERT_TRUE(ComesUp(warning));
  QStringList seen = up();
  LockByMenu();
  EXPECT_EQ(up(), seen);
  Program third = LaunchWithCredit("third", 5);
  EXPECT_FALSE(WaitUntil([&] { return !world.Claims("third").empty(); }, world.Seconds(30)));

  Click();
  EXPECT_TRUE(Goes(kLocked));
  EXPECT_EQ(up(), seen);
  for (int i = 2; i <= 3; ++i) {
    Click();
    ASSERT_TRUE(WaitUntil([&] { return !up().isEmpty() && up() != seen.mid(i - 2); }));
    seen += up();
    ASSERT_EQ(seen.size(), i) << "not one at a time";
  }
  EXPECT_TRUE(seen.takeLast().startsWith(u"Toy third"));
  seen.sort();
  EXPECT_TRUE(seen[0].startsWith(u"Toy first") && seen[1].startsWith(u"Toy second"));
  Click();
  EXPECT_TRUE(Goes(warning));
}

}  // namespace
}  // namespace vardell::test
