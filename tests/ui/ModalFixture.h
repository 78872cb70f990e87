// Acting under a modal loop: steps that run one after the other, each once it may.
#pragma once

#include <gtest/gtest.h>

#include <QTimer>
#include <QWidget>
#include <QWindow>
#include <deque>
#include <functional>

#include "tests/support/FakeScreens.h"
#include "tests/support/QtEnvironment.h"
#include "tests/support/SecondClient.h"

namespace vardell::test {

inline constexpr auto kSecond = 10ms;  // of the alerts

class ModalFixture : public testing::Test {
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

  void When(std::function<bool()> condition, std::function<void()> action) {
    steps_.push_back({std::move(condition), std::move(action)});
  }
  bool AllStepsDone() const { return steps_.empty(); }

  // A window of this program that can be seen, and is not `butNot`.
  static QWidget* Shown(const QWidget* butNot = nullptr) {
    for (QWidget* widget : QApplication::topLevelWidgets()) {
      if (widget != butNot && widget->isVisible() && widget->windowHandle() &&
          widget->windowHandle()->isExposed())
        return widget;
    }
    return nullptr;
  }

  // Goes on by itself: the loop has to run for what it does.
  void Click(const QPoint& where, int button = 1, int count = 1) {
    pointer_ = Program(
        {"xdotool", "mousemove", std::to_string(where.x()), std::to_string(where.y()), "click",
         "--repeat", std::to_string(count), "--delay", "40", std::to_string(button)},
        {});
  }
  // The terminal that is in front now.
  static Program StartTerminal(const std::string& title, const std::string& option = "-sb") {
    Program terminal({"xterm", option, "-fa", "DejaVu Sans Mono", "-T", title}, {});
    EXPECT_TRUE(WaitUntil([&] {
      return test::Run({"xdotool", "getactivewindow", "getwindowname"}, {}).output.trimmed() ==
             QString::fromStdString(title);
    }));
    return terminal;
  }

  SecondClient other;

 private:
  struct Step {
    std::function<bool()> condition;
    std::function<void()> action;
  };

  void Act() {
    if (steps_.empty() || !steps_.front().condition()) return;
    const Step step = std::move(steps_.front());
    steps_.pop_front();
    QTimer::singleShot(0, qApp, step.action);  // may run a modal loop, in which we poll on
  }

  std::deque<Step> steps_;
  QTimer poll_;
  QTimer watchdog_;
  Program pointer_;
};

}  // namespace vardell::test
