#include "link/RequestExchange.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <optional>

#include "Common Sources/Caps.h"
#include "link/Frame.h"
#include "link/StreamPair.h"
#include "link/VardellLoader.h"

namespace vardell {

namespace {

using Clock = StreamPair::Clock;

constexpr std::int64_t kChunkBytes = 64;

enum class Progress { Waiting, Moving, Finished, Lost };

struct Exchange {
  QByteArray frame;
  qsizetype written = 0;
  bool expectReply = false;
  QByteArray reply;               // length field and body, as far as they are kept
  std::int64_t received = 0;      // of both, kept or not
  std::uint32_t replyLength = 0;  // of the body; 0: not known
  bool IsSent() const { return written == frame.size(); }
};

bool IsLost(StreamStatus status) {
  return status == StreamStatus::Error || status == StreamStatus::Closed ||
         status == StreamStatus::AtEnd;
}

Progress WriteOnce(StreamPair& pair, Exchange* exchange) {
  const std::int64_t taken = pair.Write(exchange->frame.constData() + exchange->written,
                                        exchange->frame.size() - exchange->written);
  if (taken > 0) exchange->written += taken;
  if (!exchange->expectReply) return Progress::Finished;
  return taken > 0 ? Progress::Moving : Progress::Waiting;
}

void Keep(QByteArray* reply, const char* bytes, std::int64_t count) {
  const qsizetype room = qsizetype(kMaxReplyBytes) - reply->size();
  if (room > 0) reply->append(bytes, std::min<std::int64_t>(count, room));
}

// A length of 0 counts as not yet known: such a reply ends with the deadline.
bool IsComplete(Exchange* exchange) {
  if (exchange->replyLength == 0) exchange->replyLength = ReplyLength(exchange->reply).value_or(0);
  return exchange->replyLength != 0 &&
         exchange->received - kReplyHeaderBytes == std::int64_t(exchange->replyLength);
}

Progress ReadOnce(StreamPair& pair, Exchange* exchange) {
  std::array<char, kChunkBytes> chunk;
  const std::int64_t count = pair.Read(chunk.data(), kChunkBytes);
  if (count <= 0) return Progress::Waiting;
  Keep(&exchange->reply, chunk.data(), count);
  exchange->received += count;
  return IsComplete(exchange) ? Progress::Finished : Progress::Moving;
}

Progress Pass(StreamPair& pair, Exchange* exchange) {
  const StreamStatus reading = pair.ReadStatus();
  const StreamStatus writing = pair.WriteStatus();
  if (reading == StreamStatus::Opening || writing == StreamStatus::Opening)
    return Progress::Waiting;
  if (IsLost(reading) || IsLost(writing)) return Progress::Lost;
  return exchange->IsSent() ? ReadOnce(pair, exchange) : WriteOnce(pair, exchange);
}

Progress RunExchange(StreamPair& pair, Exchange* exchange, Clock::time_point deadline) {
  while (Clock::now() < deadline) {
    const Progress progress = Pass(pair, exchange);
    if (progress == Progress::Finished || progress == Progress::Lost) return progress;
    if (progress == Progress::Waiting) pair.Wait(exchange->IsSent(), !exchange->IsSent(), deadline);
  }
  return Progress::Waiting;
}

// What is waiting to be read belongs to no exchange. False when there is no end to it.
bool DiscardAvailable(StreamPair& pair) {
  std::array<char, kChunkBytes> chunk;
  for (std::size_t discarded = 0; pair.HasBytesAvailable(); discarded += kChunkBytes) {
    if (discarded > kMaxReplyBytes) return false;
    if (pair.Read(chunk.data(), kChunkBytes) <= 0) break;
  }
  return true;
}

// Whether all has come that the length field announces; the field itself, where that is 0.
bool IsWhole(const Exchange& exchange) {
  const std::optional<std::uint32_t> length = ReplyLength(exchange.reply);
  return length && exchange.received - kReplyHeaderBytes >= std::int64_t(*length);
}

// Whether the connection can carry the next exchange: not when the rest of this frame, or of the
// reply to it, would turn up there as a part of another one.
bool IsInStep(StreamPair& pair, const Exchange& exchange) {
  if (!exchange.IsSent()) return exchange.written == 0;
  if (exchange.expectReply && !IsWhole(exchange)) return false;
  return DiscardAvailable(pair);
}

void LoseConnection(ServerLink& link) {
  DropServerConnection(link);
  std::fprintf(stderr, "Vardell client: connection lost.\n");
}

void HandOut(Exchange* exchange, QByteArray* outReply) {
  if (outReply == nullptr) return;
  if (exchange->reply.size() >= qsizetype(kReplyHeaderBytes))
    exchange->reply.remove(0, kReplyHeaderBytes);
  *outReply = std::move(exchange->reply);
}

}  // namespace

std::int32_t SendRequest(ServerLink& link, RequestKind kind, const QByteArray& payload,
                         std::int16_t timeoutSeconds, bool expectReply, QByteArray* outReply) {
  const auto timeout = timeoutSeconds * link.second;
  auto deadline = Clock::now() + timeout;
  const bool wasConnected = link.shared != nullptr;
  if (ConnectToServer(link) != 0) return -1;
  if (!wasConnected) deadline = Clock::now() + timeout;

  // Shared, because dropping the connection must not end the pair that is being used here.
  std::shared_ptr<StreamPair> pair = link.shared;
  if (kind == RequestKind::KillProcess && OpenLocalServerStreams(link, &pair) != 0) return -1;

  Exchange exchange{.frame = BuildRequestFrame(kind, payload, link.reservedWord),
                    .expectReply = expectReply,
                    .reply = {}};
  const Progress progress =
      DiscardAvailable(*pair) ? RunExchange(*pair, &exchange, deadline) : Progress::Lost;
  if (pair == link.shared && progress == Progress::Waiting) NoteSilence(link);
  if (pair == link.shared && progress == Progress::Finished && expectReply) NoteAnswer(link);
  if (progress == Progress::Lost)
    LoseConnection(link);
  else if (!IsInStep(*pair, exchange) && pair == link.shared)
    DropServerConnection(link);

  if (!exchange.IsSent()) return -2;
  if (expectReply) HandOut(&exchange, outReply);
  return 0;
}

}  // namespace vardell
