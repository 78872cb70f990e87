// Alerts and full-screen messages on a real X server, with keys and clicks of another program.
#include <gtest/gtest.h>

#include <QAccessible>
#include <QApplication>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QPushButton>
#include <algorithm>
#include <chrono>

#include "platform/linux/XcbScreens.h"
#include "tests/ui/ModalFixture.h"
#include "ui/FullScreenMessage.h"
#include "ui/MessagePanel.h"
#include "ui/StopAlert.h"

namespace vardell {
namespace {

using namespace test;
using Calls = std::vector<std::string>;
using namespace Qt::StringLiterals;

class MessageWindowTest : public test::ModalFixture {
 protected:
  MessageHost Host(Screens& screens, AlertOptions options = {}) {
    return {screens,
            options,
            [this] { fake.calls.push_back("suspend"); },
            [this] { fake.calls.push_back("resume"); },
            [this] { fake.calls.push_back("hide badge"); },
            [this] { fake.calls.push_back("show badge"); }};
  }
  MessageHost FakeHost(AlertOptions options = {}) { return Host(fake, options); }
  static WatchedAppPtr Game(std::int32_t credit) {
    auto game = std::make_shared<WatchedApp>();
    game->displayName = u"Game"_s;
    game->limits.credit = credit;
    return game;
  }
  static void DismissTopmost() { MessagePanel::Topmost()->Dismiss(); }

  FakeScreens fake;
};

TEST_F(MessageWindowTest, AClickOfAnyButtonOnAnyScreenTakesTheMessageAwayAndOpensNothing) {
  XcbScreens screens;
  const std::vector<QRect> before = other.UnmanagedWindows();
  When([&] { return screens.HoldsInput(); },
       [] {
         Tool({"xrandr", "--setmonitor", "*left", "900/100x800/100+0+0", "screen"});
         Tool({"xrandr", "--setmonitor", "middle", "180/100x800/100+900+0", "none"});
       });
  When([] { return MessagePanel::Topmost()->width() == 900; },
       [] {
         Tool({"xrandr", "--setmonitor", "*right", "200/100x800/100+1080+0", "none"});
       });
  std::vector<QRect> up = before;
  up.insert(up.end(), {{0, 0, 900, 800}, {900, 0, 180, 800}, {1080, 0, 200, 800}});
  const auto isUp = [&] {
    const std::vector<QRect> windows = other.UnmanagedWindows();
    return screens.HoldsInput() && MessagePanel::Topmost()->x() == 1080 &&
           std::is_permutation(windows.begin(), windows.end(), up.begin(), up.end());
  };
  for (const auto& [where, button] :
       {std::pair(QPoint(5, 5), 1), {QPoint(1000, 400), 2}, {QPoint(1275, 795), 3}}) {
    When(isUp, [this, where = where, button = button] { Click(where, button); });
    ShowFullScreenMessage(u"Cannot contact server"_s, true, Host(screens));
    EXPECT_TRUE(AllStepsDone());
    EXPECT_TRUE(WaitUntil([&] { return other.UnmanagedWindows() == before; }))
        << "button " << button;
  }
  for (const char* monitor : {"right", "middle", "left"}) Tool({"xrandr", "--delmonitor", monitor});
  EXPECT_TRUE(WaitUntil([] { return QGuiApplication::screens().size() == 1; }));
}

TEST_F(MessageWindowTest, NoKeyGetsPastALock) {
  const Program terminal = StartTerminal("first");
  const Program second = StartTerminal("second");
  XcbScreens screens;
  const auto desktop = [] {
    return test::Run({"sh", "-c", "xdotool get_desktop; xprop -root _NET_CLIENT_LIST"}, {}).output;
  };
  const QString before = desktop();
  std::vector<QRect> windows;
  When([&] { return screens.HoldsInput(); },
       [&] {
         windows = other.UnmanagedWindows();
         for (const char* keys : {"alt+Tab", "alt+shift+Tab", "alt+F4", "Escape", "Return", "space",
                                  "super+d", "super+e", "super+F2", "ctrl+alt+Right",
                                  "ctrl+alt+Down", "shift+alt+Right", "alt+space", "alt+Escape"})
           Tool({"xdotool", "key", keys});
         EXPECT_EQ(other.UnmanagedWindows(), windows);
         EXPECT_EQ(desktop(), before);
         EXPECT_TRUE(MessagePanel::Topmost());
         Click({100, 100});
       });
  LockScreen(Host(screens));
  EXPECT_TRUE(AllStepsDone());
  EXPECT_TRUE(WaitUntil([&] { return desktop() == before; }));
  EXPECT_TRUE(terminal.IsRunning() && second.IsRunning());
  EXPECT_TRUE(WaitUntil([&] { return other.CanTakeKeyboard() && other.CanTakePointer(); }));
}

TEST_F(MessageWindowTest, WhatAnotherProgramDestroysOrHidesComesBackUntilItIsClicked) {
  XcbScreens screens;
  const std::function<void()> kShows[] = {
      [&] { LockScreen(Host(screens)); },
      [&] {
        ShowCreditAlert(Game(5), CreditAlertKind::Low, {screens, {}});
      },
      [] { ShowStopAlert(u"text"_s, {}); }};
  const auto isUp = [&] {
    const MessagePanel* panel = MessagePanel::Topmost();
    const QWidget* up = panel ? panel : Shown();
    return up && other.CanBeSeen(static_cast<xcb_window_t>(up->internalWinId())) &&
           screens.HoldsInput() == (panel != nullptr);
  };
  for (const auto& show : kShows) {
    for (const char* deed : {"windowclose", "windowunmap", "windowclose"}) {
      When(isUp, [deed] { Tool({"xdotool", deed, std::to_string(Shown()->winId())}); });
      When(isUp, [this] {
        const auto* box = qobject_cast<QMessageBox*>(Shown());
        const QWidget* target = box ? box->defaultButton() : Shown();
        Click(target->mapToGlobal(target->rect().center()));
      });
      show();
      EXPECT_TRUE(AllStepsDone()) << deed << ", " << &show - kShows;
      EXPECT_TRUE(WaitUntil([&] { return other.CanTakeKeyboard() && other.CanTakePointer(); }));
    }
  }
}

TEST_F(MessageWindowTest, APanelThatIsDestroyedBeneathALockComesBackAfterIt) {
  XcbScreens screens;
  When([&] { return screens.HoldsInput(); },
       [&] {
         const MessagePanel* panel = MessagePanel::Topmost();
         const auto isSeen = [this, panel] {
           return other.CanBeSeen(static_cast<xcb_window_t>(panel->internalWinId()));
         };
         When([&] { return MessagePanel::Topmost() != panel && screens.HoldsInput(); },
              [panel] {
                Tool({"xdotool", "windowclose", std::to_string(panel->internalWinId())});
              });
         When([isSeen] { return !isSeen(); },
              [isSeen] {
                EXPECT_FALSE(WaitUntil(isSeen, 200ms)) << "over the lock";
                DismissTopmost();
              });
         When([isSeen] { return isSeen(); }, [this] { Click({100, 100}); });
         LockScreen(Host(screens));
       });
  ShowCreditAlert(Game(5), CreditAlertKind::Low, {screens, {}});
  EXPECT_TRUE(AllStepsDone());
}

TEST_F(MessageWindowTest, ACreditPanelFollowsTheCreditAndSuspendsNothing) {
  const WatchedAppPtr game = Game(5);
  const QString five = CreditAlertText(*game, CreditAlertKind::DiscoIn5);
  const QString low = CreditAlertText(*game, CreditAlertKind::Low);
  const auto name = [] {
    QAccessibleInterface* spoken = QAccessible::queryAccessibleInterface(MessagePanel::Topmost());
    return spoken->role() == QAccessible::AlertMessage ? spoken->text(QAccessible::Name)
                                                       : QString();
  };
  When([&] { return Shown() != nullptr; },
       [&] {
         EXPECT_EQ(name(), five);
         game->limits.credit = 1;
       });
  When([&] { return name() == low; },
       [&] {
         game->limits.credit = 30;
         MessagePanel::Topmost()->Refresh();
         EXPECT_EQ(name(), low);
         EXPECT_EQ(Shown()->grab().toImage().pixel(1, 1), qRgb(0, 0, 0));
         DismissTopmost();
       });
  ShowCreditAlert(game, CreditAlertKind::DiscoIn5, {fake, {}});
  EXPECT_TRUE(AllStepsDone());
  EXPECT_EQ(fake.calls, (Calls{"mode 2 8", "capture", "mode 0 0", "release"}));
}

TEST_F(MessageWindowTest, TheCountGoesOnWhileTheInputIsKeptFromTheMessage) {
  fake.holdsInput = false;
  const auto lastIs = [this](const char* call) {
    return [=, this] { return fake.calls.back() == call; };
  };
  QElapsedTimer waited;
  When(lastIs("hide badge"), [&] { waited.start(); });
  When(lastIs("resume"), [&] {
    EXPECT_GE(waited.elapsed(), std::chrono::milliseconds(5 * kSecond).count() - 10);
    fake.holdsInput = true;
  });
  When(lastIs("suspend"), [&] { fake.holdsInput = false; });
  When(lastIs("resume"), [&] { DismissTopmost(); });  // what was lost adds up
  ShowFullScreenMessage(u"text"_s, false, FakeHost());
  EXPECT_TRUE(AllStepsDone());
  EXPECT_EQ(fake.calls, (Calls{"suspend", "mode 2 8", "capture", "hide badge", "resume", "suspend",
                               "resume", "mode 0 0", "release", "show badge"}));
}

TEST_F(MessageWindowTest, HidesItselfOnlyWhereTimersAndThePreferenceSaySo) {
  const auto message = [this](bool withTimers) {
    return [this, withTimers](const AlertOptions& options) {
      ShowFullScreenMessage(u"text"_s, withTimers, FakeHost(options));
    };
  };
  const struct {
    const char* what;
    std::function<void(const AlertOptions&)> show;
    bool hasTimers;
  } kRows[] = {{"a message", message(true), true},
               {"a message without timers", message(false), false},
               {"the lock", [this](auto options) { LockScreen(FakeHost(options)); }, false},
               {"a credit panel",
                [this](auto options) {
                  ShowCreditAlert(Game(5), CreditAlertKind::Low, {fake, options});
                },
                true},
               {"a stop alert", [](auto options) { ShowStopAlert(u"text"_s, options); }, true}};
  for (const auto& row : kRows) {
    for (const bool autoHide : {true, false}) {
      SCOPED_TRACE(testing::Message() << row.what << (autoHide ? " with" : " without"));
      bool dismissed = false;
      QTimer::singleShot(80 * kSecond, qApp, [&] {
        dismissed = true;
        if (QWidget* up = Shown()) up->close();
      });
      row.show({.autoHideAlerts = autoHide});
      EXPECT_EQ(!dismissed, row.hasTimers && autoHide);
      EXPECT_EQ(fake.window, nullptr);
      EXPECT_TRUE(WaitUntil([&] { return dismissed; }));
    }
  }
}

TEST_F(MessageWindowTest, BeepsEveryThreeSecondsWhereThePreferenceSaysSo) {
  QElapsedTimer since;
  since.start();
  int beeps = 0;
  const auto beep = [&] {
    EXPECT_GE(since.elapsed(), std::chrono::milliseconds(3 * kSecond).count() * ++beeps - 1);
  };
  const auto hide = [] { FAIL(); };
  const AlertTimers sounds({.playAlertsSound = true}, hide, beep);
  const AlertTimers silent({}, hide, [] { FAIL(); });
  EXPECT_TRUE(WaitUntil([&] { return beeps == 3; }));
}

TEST_F(MessageWindowTest, ALockOverAPanelGivesTheScreensBackToItAndIsNotDismissedForIt) {
  const auto lockOver = [this] {
    QWidget* panel = Shown();
    When([panel] { return Shown(panel) != nullptr; },
         [this, panel] {
           DismissFullScreenMessage();
           EXPECT_TRUE(MessagePanel::Topmost() != panel);
           DismissTopmost();
         });
    LockScreen(FakeHost());
    EXPECT_TRUE(panel->isVisible());
    EXPECT_EQ(fake.window, panel->windowHandle());
    EXPECT_TRUE(fake.captured);
  };
  When([] { return Shown() != nullptr; }, lockOver);
  ShowFullScreenMessage(u"text"_s, true, FakeHost());  // dismissed beneath the lock
  EXPECT_TRUE(AllStepsDone());
  EXPECT_EQ(fake.window, nullptr);
  EXPECT_FALSE(fake.captured);
  When([] { return Shown() != nullptr; },
       [&] {
         lockOver();
         DismissTopmost();
       });
  ShowCreditAlert(Game(5), CreditAlertKind::Low, {fake, {}});
  EXPECT_FALSE(fake.captured);
  EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "suspend"), 3);
  EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "resume"), 3);
}

TEST_F(MessageWindowTest, AnAlertShowsItsTextAsItStands) {
  const QString text = u"<b>%1</b> & <img src=x> \u5bb6"_s;
  When([] { return Shown() != nullptr; },
       [&] {
         auto* box = qobject_cast<QMessageBox*>(Shown());
         ASSERT_NE(box, nullptr);
         EXPECT_EQ(box->text(), text);
         EXPECT_EQ(box->textFormat(), Qt::PlainText);
         EXPECT_EQ(box->informativeText(), u"Click to continue"_s);
         EXPECT_EQ(QAccessible::queryAccessibleInterface(box)->text(QAccessible::Name), text);
         EXPECT_EQ(QAccessible::queryAccessibleInterface(box)->role(), QAccessible::AlertMessage);
         Click(box->defaultButton()->mapToGlobal(box->defaultButton()->rect().center()));
       });
  ShowStopAlert(text, {});
  EXPECT_TRUE(AllStepsDone());
}

TEST_F(MessageWindowTest, WhatIsBeingTypedDoesNotDismissAnAlertWhichThenComesAboveAFullScreenGame) {
  const Program game = StartTerminal("game", "-fullscreen");
  const QString active = test::Run({"xdotool", "getactivewindow"}, {}).output;
  QElapsedTimer up;
  When([] { return Shown() != nullptr; },
       [&] {
         up.start();
         Tool({"xdotool", "key", "Return", "key", "space"});
         EXPECT_EQ(test::Run({"xdotool", "getactivewindow"}, {}).output, active);
       });
  When([] { return Shown() && Shown()->isActiveWindow(); },
       [&] {
         EXPECT_GE(up.elapsed(), 800);
         up.start();
         Tool({"xdotool", "key", "Return", "key", "space", "key", "Escape"});
         EXPECT_FALSE(WaitUntil([] { return !Shown(); }, 300ms));
       });
  When([&] { return up.hasExpired(1000); }, [] { Tool({"xdotool", "key", "Return"}); });
  ShowStopAlert(u"text"_s, {});
  EXPECT_TRUE(AllStepsDone());
}

TEST_F(MessageWindowTest, ALockLiesOverAStandingAlertAndIsClickedFirst) {
  XcbScreens screens;
  When([] { return Shown() != nullptr; },
       [&] {
         QWidget* alert = Shown();
         When([&] { return screens.HoldsInput(); },
              [this, alert] { Click(alert->geometry().center()); });
         LockScreen(Host(screens));
         EXPECT_TRUE(alert->isVisible());
         alert->close();
       });
  ShowStopAlert(u"text"_s, {});
  EXPECT_TRUE(AllStepsDone());
}

}  // namespace
}  // namespace vardell
