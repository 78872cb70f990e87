// The message frames of the wire; docs/protocol.md shows them byte by byte. Both sides include
// this.
//
// Request:  length (4, big-endian, of the whole frame), kind (1), reserved word (4), payload.
// Reply:    length (4, big-endian, of the body alone), body.
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <cstdint>
#include <optional>

#include "link/Requests.h"

namespace vardell {

inline constexpr std::uint32_t kFrameLengthBytes = 4;
inline constexpr std::uint32_t kRequestHeaderBytes = 9;
inline constexpr std::uint32_t kReplyHeaderBytes = 4;

// --- The Agent's side.

// `reservedWord` is byte-swapped in place, as it goes out; 0 stays 0.
QByteArray BuildRequestFrame(RequestKind kind, const QByteArray& payload,
                             std::uint32_t& reservedWord);

// The body length that a reply announces; absent before its first 4 bytes are there.
std::optional<std::uint32_t> ReplyLength(QByteArrayView reply);

// --- The Server's side. Nothing is allocated; the bytes may be anything.

enum class FrameStatus {
  Incomplete,  // read on
  Complete,
  Malformed,  // shorter than its own header or above kMaxRequestFrameBytes: close the connection
};

struct RequestHeader {
  std::uint32_t frameBytes = 0;
  std::uint8_t kind = 0;  // not checked against RequestKind
  std::uint32_t reservedWord = 0;
};

// Looks at the front of `bytes`. A bad length is Malformed from its fourth byte on. `out` is filled
// where the whole header is there and good (then the status is Complete, whatever follows).
[[nodiscard]] FrameStatus ParseRequestHeader(QByteArrayView bytes, RequestHeader* out);

struct RequestFrame {
  std::uint8_t kind = 0;
  QByteArrayView payload;  // into the bytes it was taken from; valid as long as they are
};

// Takes one whole frame from the front of `bytes`, which then begins behind it. Otherwise `bytes`
// and `out` stay as they are.
[[nodiscard]] FrameStatus TakeFrame(QByteArrayView* bytes, RequestFrame* out);

// Length and body.
QByteArray BuildReply(const QByteArray& body);

}  // namespace vardell
