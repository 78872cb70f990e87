// The login session that this process belongs to.
// Implemented by platform/linux/ (login1, and without it the process table) and by a fake in
// tests/support/. Main thread only. The constructor may block for the answer of the system bus.
#pragma once

#include <cstdint>
#include <functional>

namespace vardell {

class Session {
 public:
  virtual ~Session() = default;

  // True while the session is in front (fast user switching); true where nobody can tell.
  virtual bool IsActive() = 0;

  // The process whose end ends the session; 0 where that would be this process itself.
  virtual std::int32_t LeaderPid() = 0;

  // `changed` is called from the event loop each time that IsActive() changes.
  virtual void Watch(std::function<void(bool active)> changed) = 0;
};

}  // namespace vardell
