// The stop alert and the full-screen message on a real X server, clicked by another program.
#include <gtest/gtest.h>

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QWindow>
#include <algorithm>
#include <chrono>

#include "platform/linux/XcbScreens.h"
#include "tests/support/FakeScreens.h"
#include "tests/support/QtEnvironment.h"
#include "tests/support/SecondClient.h"
#include "ui/FullScreenMessage.h"
#include "ui/StopAlert.h"

namespace vardell {
namespace {

using test::Program;
using test::WaitUntil;
using namespace std::chrono_literals;

const auto* const kEnvironment =
    testing::AddGlobalTestEnvironment(new test::QtEnvironment<QApplication>);

constexpr auto kSecond = 10ms;

QWidget* Shown() {
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (widget->isVisible() && widget->windowHandle() && widget->windowHandle()->isExposed())
      return widget;
  }
  return nullptr;
}

class MessageWindowTest : public testing::Test {
 protected:
  void SetUp() override {
    qputenv("VARDELL_TEST_SECOND_MS", QByteArray::number(int{kSecond.count()}));
    poll_.setInterval(10);
    QObject::connect(&poll_, &QTimer::timeout, [this] { Act(); });
    poll_.start();
    QObject::connect(&watchdog_, &QTimer::timeout, [this] {
      ADD_FAILURE() << "still up after " << watchdog_.interval() << " ms";
      for (QWidget* widget : QApplication::topLevelWidgets()) widget->close();
    });
    watchdog_.start(15s);
  }

  // Does the steps one after the other, each once `condition` holds; they run inside the modal
  // loop.
  void When(std::function<bool()> condition, std::function<void()> action) {
    steps_.push_back({std::move(condition), std::move(action)});
  }
  void ClickOnceUp(int x, int y) {
    When([] { return Shown() != nullptr; }, [this, x, y] { Click(x, y); });
  }
  void Click(int x, int y) {
    pointer_ =
        Program({"xdotool", "mousemove", std::to_string(x), std::to_string(y), "click", "1"}, {});
  }
  bool AllStepsDone() const { return steps_.empty(); }

  MessageHost Host(Screens& screens, AlertOptions options = {}) {
    return {screens, options, [this] { calls.push_back("suspend"); },
            [this] { calls.push_back("resume"); }};
  }

  std::vector<std::string> calls;
  test::SecondClient other;

 private:
  struct Step {
    std::function<bool()> condition;
    std::function<void()> action;
  };

  void Act() {
    if (steps_.empty() || !steps_.front().condition()) return;
    const Step step = std::move(steps_.front());
    steps_.erase(steps_.begin());
    QTimer::singleShot(0, qApp, step.action);  // may run a modal loop, in which we poll on
  }

  std::vector<Step> steps_;
  QTimer poll_;
  QTimer watchdog_;
  Program pointer_;
};

TEST_F(MessageWindowTest, AClickAnywhereTakesTheMessageAway) {
  XcbScreens screens;
  for (const QPoint& where : {QPoint(5, 5), QPoint(1275, 795), QPoint(640, 400)}) {
    ClickOnceUp(where.x(), where.y());
    ShowFullScreenMessage(QStringLiteral("Cannot contact server"), true, Host(screens));
    EXPECT_TRUE(AllStepsDone());
    EXPECT_EQ(Shown(), nullptr);
  }
}

TEST_F(MessageWindowTest, TakesScreensAndInputBetweenSuspendAndResume) {
  FakeScreens screens;
  When([] { return Shown() != nullptr; },
       [&] {
         calls = screens.calls;
         EXPECT_EQ(screens.window, Shown()->windowHandle());
         DismissFullScreenMessage();
       });
  MessageHost host = Host(screens);
  host.suspendTick = [&] { EXPECT_EQ(screens.calls.size(), 0u); };
  host.resumeTick = [&] { EXPECT_EQ(screens.calls.size(), 4u); };
  ShowFullScreenMessage(QStringLiteral("text"), false, host);
  EXPECT_EQ(calls, (std::vector<std::string>{"mode 2 8", "capture"}));
  EXPECT_EQ(screens.calls,
            (std::vector<std::string>{"mode 2 8", "capture", "mode 0 0", "release"}));
}

TEST_F(MessageWindowTest, HoldsAllInputWhileItIsUp) {
  XcbScreens screens;
  const Program terminal({"xterm", "-fa", "DejaVu Sans Mono"}, {});
  When([&] { return Shown() && !other.CanTakeKeyboard() && !other.CanTakePointer(); },
       [&] { Click(100, 100); });
  LockScreen(Host(screens));
  EXPECT_TRUE(AllStepsDone());
  EXPECT_TRUE(WaitUntil([&] { return other.CanTakeKeyboard() && other.CanTakePointer(); }));
}

TEST_F(MessageWindowTest, HidesItselfOnlyWhereTimersAndThePreferenceSaySo) {
  struct Row {
    const char* what;
    bool withTimers;
    bool autoHide;
    bool hides;
  };
  constexpr Row kRows[] = {{"both", true, true, true},
                           {"without timers, as the lock", false, true, false},
                           {"without the preference", true, false, false}};
  for (const Row& row : kRows) {
    FakeScreens screens;
    bool dismissed = false;
    QTimer::singleShot(120 * kSecond, qApp, [&] {
      dismissed = true;
      DismissFullScreenMessage();
    });
    ShowFullScreenMessage(QStringLiteral("text"), row.withTimers, Host(screens, {row.autoHide}));
    EXPECT_EQ(!dismissed, row.hides) << row.what;
    EXPECT_TRUE(WaitUntil([&] { return dismissed; }));
  }
}

TEST_F(MessageWindowTest, ALockOverAMessageGivesTheScreensBackToIt) {
  FakeScreens screens;
  When([] { return Shown() != nullptr; },
       [&] {
         QWidget* message = Shown();
         QTimer::singleShot(0, qApp, DismissFullScreenMessage);
         LockScreen(Host(screens));
         EXPECT_TRUE(message->isVisible()) << "the dismissal went to the covered message";
         EXPECT_EQ(screens.window, message->windowHandle());
         EXPECT_TRUE(screens.captured);
         DismissFullScreenMessage();
       });
  ShowFullScreenMessage(QStringLiteral("text"), true, Host(screens));
  EXPECT_EQ(screens.window, nullptr);
  EXPECT_FALSE(screens.captured);
  EXPECT_EQ(calls, (std::vector<std::string>{"suspend", "suspend", "resume", "resume"}));
}

TEST_F(MessageWindowTest, AnAlertShowsItsTextAsItStands) {
  const QString text = QStringLiteral("<b>%1</b> & <img src=x> \u5bb6");
  When([] { return Shown() != nullptr; },
       [&] {
         auto* box = qobject_cast<QMessageBox*>(Shown());
         ASSERT_NE(box, nullptr);
         EXPECT_EQ(box->text(), text);
         EXPECT_EQ(box->textFormat(), Qt::PlainText);
         EXPECT_EQ(box->informativeText(), QStringLiteral("Click to continue"));
         EXPECT_EQ(box->windowTitle(), QStringLiteral("Vardell"));
         const QPoint centre =
             box->defaultButton()->mapToGlobal(box->defaultButton()->rect().center());
         Click(centre.x(), centre.y());
       });
  ShowStopAlert(text, {});
  EXPECT_TRUE(AllStepsDone());
}

TEST_F(MessageWindowTest, AnAlertHidesItselfOnlyWhereThePreferenceSaysSo) {
  for (const bool autoHide : {true, false}) {
    bool closed = false;
    QTimer::singleShot(120 * kSecond, qApp, [&] {
      closed = true;
      if (QWidget* box = QApplication::activeModalWidget()) box->close();
    });
    ShowStopAlert(QStringLiteral("text"), {autoHide});
    EXPECT_EQ(closed, !autoHide);
    EXPECT_TRUE(WaitUntil([&] { return closed; }));
  }
}

TEST_F(MessageWindowTest, ALockLiesOverAStandingAlertAndIsClickedFirst) {
  XcbScreens screens;
  When([] { return Shown() != nullptr; },
       [&] {
         QWidget* alert = Shown();
         const QPoint button = alert->geometry().center();
         QTimer::singleShot(0, qApp, [this, button] {
           When([this] { return !other.CanTakePointer(); },
                [this, button] { Click(button.x(), button.y()); });
         });
         LockScreen(Host(screens));
         EXPECT_TRUE(alert->isVisible());
         alert->close();
       });
  ShowStopAlert(QStringLiteral("text"), {});
  EXPECT_TRUE(AllStepsDone());
}

}  // namespace
}  // namespace vardell
