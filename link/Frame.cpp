#include "link/Frame.h"

#include <QtEndian>

#include "Common Sources/Caps.h"

namespace vardell {

namespace {

void AppendBigEndian(QByteArray* out, std::uint32_t value) {
  const std::uint32_t swapped = qToBigEndian(value);
  out->append(reinterpret_cast<const char*>(&swapped), sizeof swapped);
}

}  // namespace

QByteArray BuildRequestFrame(RequestKind kind, const QByteArray& payload,
                             std::uint32_t& reservedWord) {
  const auto length = static_cast<std::uint32_t>(payload.size()) + kRequestHeaderBytes;
  QByteArray frame;
  frame.reserve(static_cast<qsizetype>(length));
  AppendBigEndian(&frame, length);
  frame.append(static_cast<char>(kind));
  reservedWord = qToBigEndian(reservedWord);
  frame.append(reinterpret_cast<const char*>(&reservedWord), sizeof reservedWord);
  frame.append(payload);
  return frame;
}

std::optional<std::uint32_t> ReplyLength(QByteArrayView reply) {
  if (reply.size() < static_cast<qsizetype>(kReplyHeaderBytes)) return std::nullopt;
  return qFromBigEndian<std::uint32_t>(reply.data());
}

FrameStatus ParseRequestHeader(QByteArrayView bytes, RequestHeader* out) {
  if (bytes.size() < static_cast<qsizetype>(kFrameLengthBytes)) return FrameStatus::Incomplete;
  const auto length = qFromBigEndian<std::uint32_t>(bytes.data());
  if (length < kRequestHeaderBytes || length > kMaxRequestFrameBytes) return FrameStatus::Malformed;
  if (bytes.size() < static_cast<qsizetype>(kRequestHeaderBytes)) return FrameStatus::Incomplete;
  *out = {length, static_cast<std::uint8_t>(bytes[4]),
          qFromBigEndian<std::uint32_t>(bytes.data() + 5)};
  return FrameStatus::Complete;
}

FrameStatus TakeFrame(QByteArrayView* bytes, RequestFrame* out) {
  RequestHeader header;
  const FrameStatus status = ParseRequestHeader(*bytes, &header);
  if (status != FrameStatus::Complete) return status;
  const auto frameBytes = static_cast<qsizetype>(header.frameBytes);
  if (bytes->size() < frameBytes) return FrameStatus::Incomplete;
  const qsizetype payloadBytes = frameBytes - static_cast<qsizetype>(kRequestHeaderBytes);
  *out = {header.kind, bytes->sliced(kRequestHeaderBytes, payloadBytes)};
  *bytes = bytes->sliced(frameBytes);
  return FrameStatus::Complete;
}

QByteArray BuildReply(const QByteArray& body) {
  QByteArray reply;
  reply.reserve(body.size() + static_cast<qsizetype>(kReplyHeaderBytes));
  AppendBigEndian(&reply, static_cast<std::uint32_t>(body.size()));
  reply.append(body);
  return reply;
}

}  // namespace vardell
