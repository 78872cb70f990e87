#include "server/LogLimit.h"

#include "Common Sources/Caps.h"

namespace vardell::server {

bool LogLimit::Admit(const LogEvent& event) {
  Key key{event.peerUid, event.name ? event.name : "other"};
  if (!lines_.contains(key) && lines_.size() >= kMaxLogUsers) key.first.reset();
  Kind& kind = lines_[key];
  kind.name = event.name;
  kind.priority = event.priority;
  return ++kind.lines <= kMaxLogLinesPerMinute;
}

std::vector<LogEvent> LogLimit::EndMinute() {
  std::vector<LogEvent> sums;
  for (const auto& [key, kind] : lines_) {
    const int more = kind.lines - kMaxLogLinesPerMinute;
    if (more <= 0) continue;
    const QString who =
        key.first ? QStringLiteral("uid %1").arg(*key.first) : QStringLiteral("others");
    LogEvent sum(kind.name, kind.priority,
                 QStringLiteral("%1: %2 more lines like these (%3) within a minute")
                     .arg(who)
                     .arg(more)
                     .arg(QString::fromStdString(key.second)));
    sum.peerUid = key.first;
    sums.push_back(sum);
  }
  lines_.clear();
  return sums;
}

}  // namespace vardell::server
