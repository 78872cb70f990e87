// Screens that takes nothing and records what was asked for, in order.
#pragma once

#include <string>
#include <vector>

#include "platform/Screens.h"

namespace vardell {

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

}  // namespace vardell
