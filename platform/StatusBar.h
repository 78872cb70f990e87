// The place of the desktop that shows status items (a tray).
// Implemented by platform/linux/ (StatusNotifierItem watchers and system trays) and by a fake. Main
// thread only; nothing blocks.
#pragma once

#include <functional>

namespace vardell {

class StatusBar {
 public:
  virtual ~StatusBar() = default;
  // True once something that shows items has been there: before that no item may be made, because
  // the toolkit chooses for good, with the first one, to whom it talks.
  virtual bool IsKnown() = 0;
  // `known` is called once, from the event loop, when IsKnown() has become true.
  virtual void WhenKnown(std::function<void()> known) = 0;
};

}  // namespace vardell
