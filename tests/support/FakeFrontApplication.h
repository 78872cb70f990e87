// FrontApplication that a test sets and switches.
#pragma once

#include <functional>
#include <utility>

#include "platform/FrontApplication.h"

namespace vardell {

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

}  // namespace vardell
