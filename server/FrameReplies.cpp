// What a FrameListener sends, and what it keeps back for a while.
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "server/FrameListenerImpl.h"

namespace vardell::server {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTimeBetweenLateLines{60};
constexpr qsizetype kBytesToGather = 64 << 10;

}  // namespace

void FrameListener::Impl::Reply(const FrameConnectionPtr& connection,
                                const RequestOutcome& outcome) {
  const auto size = static_cast<std::size_t>(outcome.reply.size());
  if (connection->Unread() + size > kMaxUnsentReplyBytes) Flush(connection);
  if (connection->Unread() + size > kMaxUnsentReplyBytes) {
    return DropBecause(connection, ConnectionEnd::Unread,
                       QStringLiteral("it does not read its replies"));
  }
  if (connection->held.empty() && outcome.after <= released) {
    connection->unsent.append(outcome.reply);
    if (connection->unsent.size() >= kBytesToGather) Flush(connection);
    return;
  }
  const Clock::time_point latest = Clock::now() + kLongestReplyDelay;
  connection->held.push_back({outcome.reply, outcome.after, latest});
  connection->heldBytes += size;
  if (connection->held.size() == 1) Enlist(*connection);
}

void FrameListener::Impl::Flush(const FrameConnectionPtr& connection) {
  QByteArray& unsent = connection->unsent;
  if (!connection->socket.IsOpen() || unsent.isEmpty()) return;
  const ssize_t count = send(connection->socket.Get(), unsent.constData(),
                             static_cast<std::size_t>(unsent.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count < 0 && errno != EAGAIN && errno != EINTR) return Drop(connection);
  if (count == unsent.size()) {
    unsent = QByteArray();
  } else if (count > 0) {
    unsent.remove(0, count);
  }
  const std::uint32_t others = connection->watched & ~EPOLLOUT;
  WatchFor(*connection, unsent.isEmpty() ? others : others | EPOLLOUT);
}

void FrameListener::Impl::Release(std::uint64_t stored) {
  released = std::max(released, stored);
  const Clock::time_point now = Clock::now();
  while (!heldByAfter.empty() && heldByAfter.begin()->first <= released) {
    ReleaseOf(Find(heldByAfter.begin()->second), now);
  }
}

void FrameListener::Impl::ReleaseLate() {
  const Clock::time_point now = Clock::now();
  const bool isLate = !heldByTime.empty() && heldByTime.begin()->first <= now;
  while (!heldByTime.empty() && heldByTime.begin()->first <= now) {
    ReleaseOf(Find(heldByTime.begin()->second), now);
  }
  if (!isLate || now < nextLateLine) return;
  nextLateLine = now + kTimeBetweenLateLines;
  Log({"replies-early", LogPriority::Warning,
       QStringLiteral("the store is slow: replies go out before their changes are stored")});
}

void FrameListener::Impl::AwaitLate() {
  if (awaitsLate || heldByTime.empty()) return;
  awaitsLate = true;
  lateTimer.expires_at(heldByTime.begin()->first);
  lateTimer.async_wait([self = shared_from_this()](const boost::system::error_code&) {
    self->awaitsLate = false;
    if (self->stopped) return;
    self->ReleaseLate();
    self->AwaitLate();
  });
}

// The first reply that is kept back, at least, must be free to go.
void FrameListener::Impl::ReleaseOf(const FrameConnectionPtr& connection, Clock::time_point now) {
  Unlist(*connection);
  std::vector<HeldReply>& held = connection->held;
  auto next = held.begin();
  for (; next != held.end() && (next->after <= released || next->latest <= now); ++next) {
    connection->heldBytes -= static_cast<std::size_t>(next->reply.size());
    connection->unsent.append(next->reply);
  }
  held.erase(held.begin(), next);
  if (held.empty()) held.shrink_to_fit();
  Enlist(*connection);
  Flush(connection);
}

void FrameListener::Impl::Enlist(const FrameConnection& connection) {
  if (connection.held.empty()) return;
  heldByAfter.emplace(connection.held.front().after, connection.agent.id);
  heldByTime.emplace(connection.held.front().latest, connection.agent.id);
  AwaitLate();
}

void FrameListener::Impl::Unlist(const FrameConnection& connection) {
  if (connection.held.empty()) return;
  heldByAfter.erase({connection.held.front().after, connection.agent.id});
  heldByTime.erase({connection.held.front().latest, connection.agent.id});
}

}  // namespace vardell::server
