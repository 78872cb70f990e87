// The resources of docs/control-api.md, apart from the socket and from HTTP's framing: one request
// with who asks, one answer. Calls that change something wait for the disk, as the Household does.
#pragma once

#include <QByteArray>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

#include "server/Authorisation.h"
#include "server/ControlServer.h"

namespace vardell::server {

struct ControlRequest {
  QByteArray method;
  QByteArray target;                  // path and query, percent-encoded
  std::optional<QByteArray> ifMatch;  // header values as they came
  std::optional<QByteArray> ifNoneMatch;
  QByteArray body;
};

struct ControlAnswer {
  int status = 200;
  QByteArray contentType;
  QByteArray body;
  QByteArray etag;   // empty: none
  QByteArray allow;  // the methods of a resource that does not have this one; empty: none
};

// A request that takes long: parts of it, so that nobody else waits with it.
class ControlTask {
 public:
  virtual ~ControlTask() = default;
  // Once, on a thread of its own, while the others go on: it touches nothing of theirs.
  virtual void Prepare() = 0;
  // Then, on the network's thread, again and again until there is an answer.
  virtual std::optional<ControlAnswer> Step() = 0;
};

// A task must not outlive the Household.
using ControlOutcome = std::variant<ControlAnswer, std::unique_ptr<ControlTask>>;

struct ControlResources {
  Household& household;
  std::function<ServerStatus()> status;
  const Metrics* metrics = nullptr;  // absent: all are 0
};

ControlOutcome AnswerControlRequest(const ControlResources& resources, const Requester& requester,
                                    const ControlRequest& request);

// The largest body that is read of such a request, whoever takes it then.
std::size_t MaxBodyBytes(const Requester& requester, const QByteArray& method,
                         const QByteArray& target);

// What the framing itself refuses: a header or a body above its bound, or no HTTP.
ControlAnswer RefuseHeader();
ControlAnswer RefuseBody(std::size_t maxBytes);
ControlAnswer RefuseMalformed();

}  // namespace vardell::server
