#include "core/EventHandlers.h"

#include <unistd.h>

#include "tests/core/AgentFixture.h"

namespace vardell::test {
namespace {

using namespace Qt::StringLiterals;

class EventHandlersTest : public AgentFixture {
 protected:
  EventHandlersTest() {
    agent.ui.showOverlay = [this] { ++overlaysShown; };
    agent.ui.redrawOverlay = [this] { ++overlaysRedrawn; };
    agent.ui.toggleStatusItem = [this] { ++itemsToggled; };
    agent.ui.hasAppCreditLine = [this](std::int32_t) { return hasLine; };
    InstallEventHandlers(agent);
    RegisterHotKeys(agent);
  }
  int overlaysShown = 0;
  int overlaysRedrawn = 0;
  int itemsToggled = 0;
  bool hasLine = false;
};

TEST_F(EventHandlersTest, ALaunchThatIsWatchedShowsTheOverlayAndItsEndTakesAwayItsLine) {
  for (const bool line : {false, true}) {
    hasLine = line;
    server.AnswerCredit(u"toy"_s, 10);
    const ProcessSerialNumber process = processes.Launch(Toy(), getpid());
    EXPECT_TRUE(IsWatched(u"toy"_s));
    EXPECT_EQ(1, std::exchange(overlaysShown, 0));
    EXPECT_EQ(u"3 1"_s, Frames());
    processes.Quit(process);
    EXPECT_FALSE(IsWatched(u"toy"_s));
    EXPECT_EQ(line ? std::vector{getpid()} : std::vector<std::int32_t>(), removedLines);
  }
  server.Answer(u"toy"_s, {{u"Enabled"_s, false}});
  (void)processes.Launch(Toy(), getpid());
  EXPECT_FALSE(IsWatched(u"toy"_s));
  EXPECT_EQ(0, overlaysShown);
}

TEST_F(EventHandlersTest, ALaunchAndAMinuteOnTheWire) {
  agent.currentUserName = u"ann"_s;
  ApplicationInfo toy = Toy();
  toy.identifier = u"org.example.toy"_s;
  server.Answer(*toy.identifier, {{u"Enabled"_s, true},
                                  {u"Credit"_s, 30},
                                  {u"WD start"_s, 480},
                                  {u"NextAutoUpdate"_s, 1.5e9}});
  (void)processes.Launch(toy, getpid());
  Tick();
  const QByteArray names = "03000000616e6e0f0000006f72672e6578616d706c652e746f79";
  const QByteArray record =  // paid, with the Server's 480 and 1439 as bounds
      "002f6859000000001d000000010000e00100009f05000000000000"
      "9f050000010000000000000000000000";
  QByteArray frames;
  for (const RecordingServer::Frame& frame : server.TakeFrames()) frames += frame.bytes.toHex();
  EXPECT_EQ("000000230300000000" + names + "000000230100000000" + names + "0000004e0600000000" +
                names + record + "000000230100000000" + names,
            frames);
}

TEST_F(EventHandlersTest, TheTickStandsStillWhileTheSessionIsAway) {
  session.Switch(false);
  session.Switch(false);
  EXPECT_TRUE(agent.tickTimer.IsSuspended());
  session.Switch(true);
  EXPECT_FALSE(agent.tickTimer.IsSuspended());
}

TEST_F(EventHandlersTest, HotKeysShowTheOverlayAndToggleTheItemAndAFrontSwitchRedraws) {
  hotKeys.Press({1, 2});
  hotKeys.Press(kShowOverlayHotKey);
  EXPECT_EQ(1, overlaysShown);
  hotKeys.Press(kStatusItemHotKey);
  EXPECT_EQ(1, itemsToggled);
  agent.isSystem103 = true;
  hotKeys.Press(kStatusItemHotKey);
  EXPECT_EQ(1, itemsToggled);
  EXPECT_EQ(QStringList{u"lock"_s}, ShownAlerts());
  front.SwitchTo(4711);
  EXPECT_EQ(1, overlaysRedrawn);
  EXPECT_EQ(kEventNotHandled, HandleSessionEvent(agent, {kEventClassSystem, 9, {}, {}}));
  EXPECT_EQ(kEventNotHandled, HandleApplicationEvent(agent, {kEventClassApplication, 7, {}, {}}));
  EXPECT_EQ(kEventNotHandled, HandleFrontSwitchEvent(agent, {kEventClassApplication, 5, {}, {}}));
  EXPECT_EQ(kEventNotHandled, HandleHotKeyEvent(agent, {kEventClassKeyboard, 6, {}, {}}));
}

}  // namespace
}  // namespace vardell::test
