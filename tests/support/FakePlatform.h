// What an agent finds around it, one fake for each seam, as a test sets and records it.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/ApplicationPreferences.h"
#include "platform/FrontApplication.h"
#include "platform/HotKeys.h"
#include "platform/Preferences.h"
#include "platform/Screens.h"
#include "platform/Session.h"
#include "platform/StatusBar.h"
#include "platform/System.h"

namespace vardell {

// Preferences that a test sets and reads.
class FakeApplicationPreferences : public ApplicationPreferences {
 public:
  std::optional<QVariant> Value(const QString& key) override {
    const auto value = values.find(key);
    return value == values.end() ? std::nullopt : std::optional(*value);
  }
  void SetValue(const QString& key, const QVariant& value) override {
    values.insert(key, value);
    isStored = false;
  }
  bool Synchronize() override { return isStored = true; }

  QVariantMap values;
  bool isStored = true;  // nothing was set since the last Synchronize
};

// FrontApplication that a test sets and switches.
class FakeFrontApplication : public FrontApplication {
 public:
  std::int32_t FrontPid() override { return frontPid; }
  bool IsDisplayCaptured() override { return captured; }
  void Watch(std::function<void()> switched) override { switched_ = std::move(switched); }

  // Brings `pid` to the front; tells the watcher when that is a change.
  void SwitchTo(std::int32_t pid) {
    if (std::exchange(frontPid, pid) != pid && switched_) switched_();
  }

  std::int32_t frontPid = 0;
  bool captured = false;

 private:
  std::function<void()> switched_;
};

// HotKeys without a keyboard: records what was registered, and presses what a test asks for.
class FakeHotKeys : public HotKeys {
 public:
  bool Register(HotKeyId id, std::uint32_t, std::uint32_t) override {
    registered.push_back(id);
    return true;
  }
  void SetHandler(std::function<void(HotKeyId)> pressed) override { pressed_ = std::move(pressed); }
  // Any id, registered or not.
  void Press(HotKeyId id) {
    if (pressed_) pressed_(id);
  }

  std::vector<HotKeyId> registered;

 private:
  std::function<void(HotKeyId)> pressed_;
};

// Preferences that a test sets.
class FakePreferences : public Preferences {
 public:
  bool Synchronize() override { return synchronizes; }
  std::optional<QVariant> Value(const QString& key) override {
    const auto value = values.find(key);
    return value == values.end() ? std::nullopt : std::optional(*value);
  }

  bool synchronizes = true;
  QVariantMap values;
};

// Screens that takes nothing and records what was asked for, in order.
class FakeScreens : public Screens {
 public:
  QRect MainDisplayBounds() override { return bounds; }
  bool IsComposited() override { return composited; }

  void CaptureSecondaryDisplays() override {
    captured = true;
    calls.push_back("capture");
  }
  void ReleaseDisplays() override {
    captured = false;
    calls.push_back("release");
  }
  void SetSystemUIMode(SystemUIMode mode, int options, QWindow* newWindow) override {
    window = mode == SystemUIMode::Normal ? nullptr : newWindow;
    calls.push_back("mode " + std::to_string(static_cast<int>(mode)) + " " +
                    std::to_string(options));
  }
  bool HoldsInput() override { return holdsInput; }

  QRect bounds{0, 0, 800, 600};
  bool composited = false;
  bool captured = false;
  bool holdsInput = true;
  QWindow* window = nullptr;       // the one that holds the input
  std::vector<std::string> calls;  // "capture", "release", "mode 2 8", "mode 0 0"
};

// A login session that a test switches away and back.
class FakeSession : public Session {
 public:
  bool IsActive() override { return active; }
  std::int32_t LeaderPid() override { return leaderPid; }
  void Watch(std::function<void(bool)> changed) override { changed_ = std::move(changed); }

  void Switch(bool nowActive) {
    active = nowActive;
    if (changed_) changed_(nowActive);
  }

  bool active = true;
  std::int32_t leaderPid = 0;

 private:
  std::function<void(bool)> changed_;
};

// StatusBar that comes when a test says so.
class FakeStatusBar : public StatusBar {
 public:
  bool IsKnown() override { return known; }
  void WhenKnown(std::function<void()> told) override { told_ = std::move(told); }

  void Come() {
    known = true;
    if (const auto told = std::exchange(told_, {})) told();
  }

  bool known = false;

 private:
  std::function<void()> told_;
};

// A machine and a user that a test chooses.
class FakeSystem : public System {
 public:
  SystemVersion Version() override { return version; }
  QString UserShortName() override { return userShortName; }

  SystemVersion version{10, 10};
  QString userShortName = QStringLiteral("anna");
};

}  // namespace vardell
