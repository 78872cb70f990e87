// HotKeys without a keyboard: records what was registered, and presses what a test asks for.
#pragma once

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "platform/HotKeys.h"

namespace vardell {

class FakeHotKeys : public HotKeys {
 public:
  struct Registration {
    HotKeyId id;
    std::uint32_t keyCode = 0;
    std::uint32_t modifiers = 0;
    friend bool operator==(const Registration&, const Registration&) = default;
  };

  bool Register(HotKeyId id, std::uint32_t keyCode, std::uint32_t modifiers) override {
    if (std::find(takenKeyCodes.begin(), takenKeyCodes.end(), keyCode) != takenKeyCodes.end())
      return false;
    registered.push_back({id, keyCode, modifiers});
    return true;
  }

  void SetHandler(std::function<void(HotKeyId)> pressed) override { pressed_ = std::move(pressed); }

  // Any id, registered or not.
  void Press(HotKeyId id) {
    if (pressed_) pressed_(id);
  }

  std::vector<Registration> registered;
  std::vector<std::uint32_t> takenKeyCodes;  // held by another program

 private:
  std::function<void(HotKeyId)> pressed_;
};

}  // namespace vardell
