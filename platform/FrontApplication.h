// The application in front, and whether it has the display for itself.
// Implemented by platform/linux/ (window-manager hints and the X resource extension) and by a fake.
// Main thread only.
#pragma once

#include <cstdint>
#include <functional>

namespace vardell {

class FrontApplication {
 public:
  virtual ~FrontApplication() = default;
  // The process that owns the active window; 0 where there is none.
  virtual std::int32_t FrontPid() = 0;
  // True while the active window is a full-screen one of another program than this.
  virtual bool IsDisplayCaptured() = 0;
  // `switched` is called from the event loop when FrontPid() has changed.
  virtual void Watch(std::function<void()> switched) = 0;
};

}  // namespace vardell
