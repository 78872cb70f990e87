// The resources of docs/control-api.md, apart from the socket and from HTTP's framing: one request
// with who asks, one answer. Calls that change something wait for the disk, as the Household does.
#pragma once

#include <QByteArray>
#include <functional>
#include <optional>

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

struct ControlResources {
  Household& household;
  std::function<ServerStatus()> status;
};

ControlAnswer AnswerControlRequest(const ControlResources& resources, const Requester& requester,
                                   const ControlRequest& request);

// What the framing itself refuses: too large, or no HTTP.
ControlAnswer RefuseTooLarge(int status, const QString& what);
ControlAnswer RefuseMalformed();

}  // namespace vardell::server
