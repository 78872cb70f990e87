// One request and at most one reply over the stream pair. Main thread only; blocks.
#pragma once

#include <QByteArray>
#include <cstdint>

#include "link/Requests.h"

namespace vardell {

struct ServerLink;

// Sends one frame and, with `expectReply`, waits for the reply's body, at most `timeoutSeconds`
// (counted anew after a connect that did network work).
// 0: sent (and *outReply, when given, holds what of the reply's body had come by the deadline).
// -1: no usable connection. -2: not completely written in time, or the connection was lost first.
// *outReply is touched only where 0 is returned and a reply was expected. At most kMaxReplyBytes of
// a reply are kept.
[[nodiscard]] std::int32_t SendRequest(ServerLink& link, RequestKind kind,
                                       const QByteArray& payload, std::int16_t timeoutSeconds,
                                       bool expectReply, QByteArray* outReply);

}  // namespace vardell
