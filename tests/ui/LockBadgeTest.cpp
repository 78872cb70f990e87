#include "ui/LockBadge.h"

#include "platform/HotKeys.h"
#include "platform/linux/XcbScreens.h"
#include "tests/ui/ModalFixture.h"
#include "ui/AlertHelpers.h"
#include "ui/MessagePanel.h"

#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

namespace vardell {
namespace {

using namespace test;
using namespace Qt::StringLiterals;

class LockBadgeTest : public test::ModalFixture {
 protected:
  void SetUp() override {
    ModalFixture::SetUp();
    qputenv("VARDELL_TEST_SECOND_MS", "100");
    badge = CreateLockBadge(screens, [this](std::function<void()> dismissed) {
      lockGone = std::move(dismissed);
      ++locks;
    });
    ASSERT_TRUE(WaitUntil([this] { return Shown() == badge.get(); }));
  }
  bool ShowsPadlock() const {
    const QImage picture = badge->grab().toImage().convertToFormat(QImage::Format_ARGB32);
    return qAlpha(picture.pixel(10, 14)) == 255;
  }
  bool WaitForLocks(int count) {
    return WaitUntil([&] { return locks == count; });
  }

  FakeScreens screens;
  XcbScreens watching;
  std::unique_ptr<LockBadge> badge;
  std::function<void()> lockGone;
  int locks = 0;
};

TEST_F(LockBadgeTest, BlinksAfterADoubleClickAndLocksOnceAfterThreeSeconds) {
  screens.composited = true;
  EXPECT_TRUE(ShowsPadlock());
  QElapsedTimer since;
  Click({8, 14});
  EXPECT_FALSE(WaitUntil([&] { return !ShowsPadlock(); }, 200ms)) << "a single click";
  Click({8, 14}, 1, 2);
  ASSERT_TRUE(WaitUntil([&] { return !ShowsPadlock(); }));
  since.start();
  Click({8, 14}, 1, 2);  // swallowed
  ASSERT_TRUE(WaitForLocks(1));
  EXPECT_GE(since.elapsed(), 150);
  ASSERT_TRUE(WaitUntil([&] { return ShowsPadlock(); }));
  Click({8, 14}, 1, 2);  // swallowed until the lock has gone
  EXPECT_FALSE(WaitUntil([&] { return !ShowsPadlock() || locks > 1; }, 500ms));
  lockGone();
  Click({8, 14}, 1, 2);
  ASSERT_TRUE(WaitForLocks(2));
}

TEST_F(LockBadgeTest, StaysInTheCornerOfTheMainDisplayAndHidesAsOftenAsItIsHidden) {
  screens.bounds = QRect(300, 200, 400, 300);
  const QRect place(300, 200, 16, 20);
  Tool({"xdotool", "windowmove", std::to_string(badge->winId()), "40", "50"});
  EXPECT_TRUE(WaitUntil([&] { return badge->geometry() == place; }));
  Tool({"xdotool", "windowsize", std::to_string(badge->winId()), "100", "100"});
  EXPECT_TRUE(WaitUntil([&] { return badge->geometry() == place; }));
  ToggleLockBadge(*badge);
  EXPECT_FALSE(ShowsPadlock());
  HideLockBadge(badge.get());
  HideLockBadge(badge.get());
  ShowLockBadge(badge.get());
  EXPECT_FALSE(badge->isVisible());
  ShowLockBadge(badge.get());
  EXPECT_TRUE(badge->isVisible());
  ShowLockBadge(nullptr);
}

TEST_F(LockBadgeTest, ComesBackToItsCornerWhateverAnotherProgramDoes) {
  for (const char* deed : {"true", "xdotool windowclose $0", "xdotool windowunmap $0"}) {
    const std::string window = std::to_string(badge->winId());
    Tool({"sh", "-c", deed, window});
    EXPECT_TRUE(WaitUntil([&] {
      return other.CanBeSeen(static_cast<xcb_window_t>(badge->internalWinId()));
    })) << deed;
    for (int burst = 0; burst < 5; ++burst) {
      Tool({"sh", "-c",
            "for i in 1 2 3 4 5 6 7 8; do"
            "  xdotool windowmove $0 $((i * 10)) 40 windowmove $0 3 3; done",
            std::to_string(badge->winId())});
      EXPECT_TRUE(WaitUntil([&] {
        const std::vector<QRect> up = other.UnmanagedWindows();
        return std::find(up.begin(), up.end(), QRect(0, 0, 16, 20)) != up.end();
      })) << deed
          << ", burst " << burst;
    }
  }
}

TEST_F(LockBadgeTest, IsNeverAboveAPanel) {
  const auto isPanelOnTop = [this] { return other.UnmanagedWindows().back() == screens.bounds; };
  MessagePanel panel(
      PanelUse::CreditAlert, kCreditColour, [] { return QString(); }, screens, nullptr);
  panel.Appear();
  ASSERT_TRUE(WaitUntil(isPanelOnTop));
  badge->repaint();
  EXPECT_FALSE(WaitUntil([&] { return !isPanelOnTop(); }, 100ms)) << "by being drawn";
  HideLockBadge(badge.get());
  ShowLockBadge(badge.get());
  EXPECT_TRUE(WaitUntil([&] {
    return other.CanBeSeen(static_cast<xcb_window_t>(badge->winId())) && isPanelOnTop();
  })) << "by being shown";
}

using AlertHelpersTest = test::ModalFixture;

TEST_F(AlertHelpersTest, OnlyTheButtonWithTheThirdKeyConfirms) {
  for (const auto& [keys, confirms] :
       {std::pair("Return", false), {"Escape", false}, {"Tab Return", true}}) {
    When([] { return Shown() && Shown()->isActiveWindow(); },
         [keys = keys] {
           QStringList labels;
           for (const auto* button : Shown()->findChildren<QPushButton*>())
             labels << button->text();
           labels.sort();
           EXPECT_EQ(labels, (QStringList{u"Delete"_s, u"Keep"_s}));
           Tool({"sh", "-c", std::string("xdotool key ") + keys});
         });
    EXPECT_EQ(ConfirmAlert("Delete it?", nullptr, "Delete", "Keep"), confirms) << keys;
  }
  When([] { return Shown() && Shown()->isActiveWindow(); },
       [] {
         Tool({"xdotool", "key", "Return"});
       });
  NoteAlert(nullptr, "explanation");  // shows nothing
  NoteAlert("message", "explanation");
  EXPECT_TRUE(AllStepsDone());
}

TEST_F(AlertHelpersTest, ControlsAreFoundByTheirWholeNameAndGiveTheirText) {
  QWidget window;
  QLineEdit edit(u"typed"_s, &window);
  QLabel label(u"said"_s, &window);
  constexpr std::uint32_t kForm = FourCharCode("form");
  SetControlId(edit, kForm, 1);
  SetControlId(label, kForm, 2);
  EXPECT_EQ(FindControl(window, kForm, 1), &edit);
  EXPECT_EQ(FindControl(window, FourCharCode("from"), 1), nullptr);
  EXPECT_EQ(CopyControlText(edit), u"typed"_s);
  EXPECT_EQ(CopyControlText(*FindControl(window, kForm, 2)), u"said"_s);
  EXPECT_EQ(CopyControlText(window), QString());
}

}  // namespace
}  // namespace vardell
