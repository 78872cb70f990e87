// HotKeys without a keyboard: records what was registered, and presses what a test asks for.
#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "platform/HotKeys.h"

namespace vardell {

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

}  // namespace vardell
