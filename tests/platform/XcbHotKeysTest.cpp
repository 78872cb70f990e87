#include "platform/linux/XcbHotKeys.h"

#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QWidget>

#include "platform/linux/XcbScreens.h"
#include "tests/support/SecondClient.h"

namespace vardell {
namespace {

using namespace test;
using namespace Qt::StringLiterals;

constexpr HotKeyId kC{FourCharCode("QFil"), FourCharCode("Ckey")};
constexpr HotKeyId kH{FourCharCode("QFil"), FourCharCode("Hkey")};
constexpr xcb_keycode_t kCodeOfC = 54;
constexpr std::uint16_t kControlAlt = XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1;

class XcbHotKeysTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(QGuiApplication::platformName(), u"xcb"_s);
    keys.SetHandler([this](HotKeyId id) { pressed.push_back(id); });
  }
  void RegisterBoth() {
    ASSERT_TRUE(keys.Register(kC, kKeyCodeC, kControlOption));
    ASSERT_TRUE(keys.Register(kH, kKeyCodeH, kControlOption));
  }
  static void Type(const std::string& combination) { Tool({"xdotool", "key", combination}); }
  // Waits for a press that comes after everything before it.
  void ExpectPressed(const std::vector<HotKeyId>& expected) {
    Type("ctrl+alt+h");
    ASSERT_TRUE(WaitUntil([&] { return !pressed.empty() && pressed.back() == kH; }));
    pressed.pop_back();
    EXPECT_EQ(pressed.size(), expected.size());
    EXPECT_EQ(pressed, expected);
    pressed.clear();
  }

  void ExpectFollowed(const std::vector<std::string>& change) {
    RegisterBoth();
    Tool(change);
    // Handled once the key that it was before can be had again.
    test::SecondClient other;
    EXPECT_TRUE(WaitUntil([&] { return other.GrabKey(kControlAlt, kCodeOfC); }));
    Type("ctrl+alt+c");
    ExpectPressed({kC});
  }

  std::vector<HotKeyId> pressed;
  XcbHotKeys keys;
};

TEST_F(XcbHotKeysTest, TellsWhichKeyWasPressedWhateverTheLocksAreAndNoOther) {
  RegisterBoth();
  for (const std::vector<std::string>& locks : std::vector<std::vector<std::string>>{
           {}, {"Caps_Lock"}, {"Num_Lock"}, {"Caps_Lock", "Num_Lock"}}) {
    for (const std::string& lock : locks) Type(lock);
    Type("ctrl+alt+c");
    ExpectPressed({kC});
    for (const std::string& lock : locks) Type(lock);
  }
  for (const char* other : {"c", "ctrl+c", "alt+c", "ctrl+alt+shift+c", "ctrl+alt+super+c"})
    Type(other);
  ExpectPressed({});
}

TEST_F(XcbHotKeysTest, AHeldKeyIsOnePress) {
  RegisterBoth();
  Tool({"xset", "r", "rate", "50", "100"});
  Tool({"xdotool", "keydown", "ctrl", "keydown", "alt", "keydown", "c", "sleep", "0.4", "keyup",
        "c", "keyup", "alt", "keyup", "ctrl"});
  Type("ctrl+alt+c");
  ExpectPressed({kC, kC});
}

TEST_F(XcbHotKeysTest, ComesThroughWhileThisProgramHoldsTheKeyboard) {
  RegisterBoth();
  XcbScreens screens;
  QWidget window(nullptr, Qt::X11BypassWindowManagerHint);
  window.setGeometry(0, 0, 200, 200);
  window.show();
  test::SecondClient other;
  screens.SetSystemUIMode(SystemUIMode::ContentHidden, kUIOptionDisableProcessSwitch,
                          window.windowHandle());
  ASSERT_TRUE(WaitUntil([&] { return !other.CanTakeKeyboard() && !other.CanTakePointer(); }));
  Type("Caps_Lock");
  Type("ctrl+alt+c");
  ExpectPressed({kC});
  Type("Caps_Lock");
  screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
  EXPECT_TRUE(WaitUntil([&] { return other.CanTakeKeyboard(); }));
}

TEST_F(XcbHotKeysTest, FollowsTheKeyToAnotherPlaceOfTheLayout) {
  ExpectFollowed({"xmodmap", "-e", "keycode 54 = j J", "-e", "keycode 44 = c C"});
  Tool({"xmodmap", "-e", "keycode 54 = c C", "-e", "keycode 44 = j J"});
}

TEST_F(XcbHotKeysTest, FollowsTheKeyToAnotherLayout) {
  ExpectFollowed({"setxkbmap", "dvorak"});
  Tool({"setxkbmap", "us"});
}

TEST_F(XcbHotKeysTest, ALayoutWithoutLatinLettersHasTheKeyInItsPlace) {
  Tool({"setxkbmap", "ru"});
  EXPECT_TRUE(keys.Register(kC, kKeyCodeC, kControlOption));
  Tool({"setxkbmap", "us"});
  ASSERT_TRUE(keys.Register(kH, kKeyCodeH, kControlOption));
  Type("ctrl+alt+c");
  ExpectPressed({kC});
}

TEST_F(XcbHotKeysTest, AKeyThatAnotherProgramHoldsIsRefused) {
  test::SecondClient other;
  ASSERT_TRUE(other.GrabKey(kControlAlt | XCB_MOD_MASK_LOCK, kCodeOfC));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(keys.Register(kC, kKeyCodeC, kControlOption));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "VARDELL ERROR: Hot key 'C' is held by another program.\n");
  EXPECT_TRUE(other.GrabKey(kControlAlt, kCodeOfC)) << "half of the refused key is still grabbed";
  EXPECT_TRUE(keys.Register(kH, kKeyCodeH, kControlOption));
}

}  // namespace
}  // namespace vardell
