// What one request of an agent does, and the bytes that answer it.
#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

#include "link/Frame.h"

namespace vardell::server {

class Household;
struct AgentConnection;

struct RequestOutcome {
  QByteArray reply;                // whole, with its length; empty where none is due
  std::optional<QString> problem;  // why the connection must be closed
};

// Waits for the disk where the request changes something.
RequestOutcome HandleAgentRequest(Household& household, const AgentConnection& connection,
                                  const RequestFrame& frame);

}  // namespace vardell::server
