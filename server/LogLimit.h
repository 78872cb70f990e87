// Bounds what others can make appear in the log: of each user and kind of event a few lines a
// minute; the rest is counted, and told in one line when the minute is over. Pure values; whoever
// has one keeps the time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "server/Log.h"

namespace vardell::server {

class LogLimit {
 public:
  // Whether the event is to be said; otherwise it is counted. Users beyond kMaxLogUsers share one
  // bound.
  [[nodiscard]] bool Admit(const LogEvent& event);

  // Whether nothing was admitted since the last EndMinute.
  bool IsIdle() const { return lines_.empty(); }

  // A minute after the first event: what was counted, a line for each user and kind. All counts
  // begin anew.
  std::vector<LogEvent> EndMinute();

 private:
  struct Kind {
    const char* name = nullptr;
    LogPriority priority = LogPriority::Info;
    int lines = 0;
  };
  using Key = std::pair<std::optional<std::uint32_t>, std::string>;  // no uid: others

  std::map<Key, Kind> lines_;
};

}  // namespace vardell::server
