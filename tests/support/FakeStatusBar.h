// StatusBar that comes when a test says so.
#pragma once

#include <functional>
#include <utility>

#include "platform/StatusBar.h"

namespace vardell {

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

}  // namespace vardell
