// A login session that a test switches away and back.
#pragma once

#include <utility>

#include "platform/Session.h"

namespace vardell {

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

}  // namespace vardell
