#include "core/EventHandlers.h"

#include <unistd.h>

#include "tests/core/AgentFixture.h"

namespace vardell::test {
namespace {

ApplicationInfo Toy() {
  ApplicationInfo info;
  info.path = QStringLiteral("/usr/share/applications/toy.desktop");
  info.isBundle = true;
  info.identifier = QStringLiteral("toy");
  info.displayName = QStringLiteral("Toy");
  return info;
}

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

TEST_F(EventHandlersTest, KindsThatAHandlerDoesNotKnowAreNotHandled) {
  EXPECT_EQ(kEventNotHandled, HandleSessionEvent(agent, {kEventClassSystem, 9, {}, {}}));
  EXPECT_EQ(kEventNotHandled, HandleApplicationEvent(agent, {kEventClassApplication, 7, {}, {}}));
  EXPECT_EQ(kEventNotHandled, HandleFrontSwitchEvent(agent, {kEventClassApplication, 5, {}, {}}));
  EXPECT_EQ(kEventNotHandled, HandleHotKeyEvent(agent, {kEventClassKeyboard, 6, {}, {}}));
  EXPECT_EQ(kNoError, HandleHotKeyEvent(agent, {kEventClassKeyboard, 5, {}, {1, 2}}));
  EXPECT_EQ(-9874, kEventNotHandled);
}

TEST_F(EventHandlersTest, ALaunchThatIsWatchedShowsTheOverlay) {
  server.AnswerCredit(QStringLiteral("toy"), 10);
  const ProcessSerialNumber process = processes.Launch(Toy(), getpid());
  EXPECT_TRUE(IsWatched(QStringLiteral("toy")));
  EXPECT_EQ(1, overlaysShown);
  EXPECT_EQ((QStringList{QStringLiteral("3"), QStringLiteral("1")}), Frames());

  processes.Quit(process);
  EXPECT_FALSE(IsWatched(QStringLiteral("toy")));
  EXPECT_TRUE(removedLines.empty());
}

TEST_F(EventHandlersTest, ALaunchAndAMinuteOnTheWire) {
  agent.currentUserName = QStringLiteral("ann");
  ApplicationInfo toy = Toy();
  toy.identifier = QStringLiteral("org.example.toy");
  server.Answer(*toy.identifier, {{QStringLiteral("Enabled"), true},
                                  {QStringLiteral("Credit"), 30},
                                  {QStringLiteral("WD start"), 480},
                                  {QStringLiteral("NextAutoUpdate"), 1.5e9}});
  (void)processes.Launch(toy, getpid());
  Tick();

  const QByteArray names =
      "03000000616e6e"
      "0f0000006f72672e6578616d706c652e746f79";
  const QByteArray record =
      "002f6859"
      "00000000"
      "1d000000"
      "01"
      "00"
      "00"
      "e0010000"
      "9f050000"
      "00000000"
      "9f050000"
      "01"
      "00"
      "00"
      "00000000"
      "00"
      "00000000";
  std::vector<QByteArray> frames;
  for (const RecordingServer::Frame& frame : server.TakeFrames())
    frames.push_back(frame.bytes.toHex());
  EXPECT_EQ((std::vector<QByteArray>{"00000023"
                                     "03"
                                     "00000000" +
                                         names,
                                     "00000023"
                                     "01"
                                     "00000000" +
                                         names,
                                     "0000004e"
                                     "06"
                                     "00000000" +
                                         names + record,
                                     "00000023"
                                     "01"
                                     "00000000" +
                                         names}),
            frames);
}

TEST_F(EventHandlersTest, ALaunchThatIsNotWatchedShowsNothing) {
  server.Answer(QStringLiteral("toy"), {{QStringLiteral("Enabled"), false}});
  (void)processes.Launch(Toy(), getpid());
  EXPECT_FALSE(IsWatched(QStringLiteral("toy")));
  EXPECT_EQ(0, overlaysShown);
}

TEST_F(EventHandlersTest, AnEndTakesAwayTheLineWhereThereIsOne) {
  server.AnswerCredit(QStringLiteral("toy"), 10);
  const ProcessSerialNumber process = processes.Launch(Toy(), getpid());
  hasLine = true;
  processes.Quit(process);
  EXPECT_EQ(std::vector{static_cast<std::int32_t>(getpid())}, removedLines);
}

TEST_F(EventHandlersTest, TheTickStandsStillWhileTheSessionIsAway) {
  session.Switch(false);
  session.Switch(false);
  EXPECT_TRUE(agent.tickTimer.IsSuspended());
  session.Switch(true);
  EXPECT_FALSE(agent.tickTimer.IsSuspended());
}

TEST_F(EventHandlersTest, HotKeysAreControlOptionCAndH) {
  EXPECT_EQ((HotKeyId{0x5146696C, 0x436B6579}), kShowOverlayHotKey);
  EXPECT_EQ((HotKeyId{0x5146696C, 0x486B6579}), kStatusItemHotKey);
  hotKeys.Press(kShowOverlayHotKey);
  EXPECT_EQ(1, overlaysShown);
  hotKeys.Press(kStatusItemHotKey);
  EXPECT_EQ(1, itemsToggled);
  agent.isSystem103 = true;
  hotKeys.Press(kStatusItemHotKey);
  EXPECT_EQ(1, itemsToggled);
  EXPECT_EQ(QStringList{QStringLiteral("lock")}, ShownAlerts());
}

TEST_F(EventHandlersTest, AFrontSwitchRedrawsTheOverlay) {
  front.SwitchTo(4711);
  EXPECT_EQ(1, overlaysRedrawn);
}

}  // namespace
}  // namespace vardell::test
