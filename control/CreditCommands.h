// credit set and credit add. The Server does each once for its id.
#pragma once

#include "control/Commands.h"

namespace vardell::control {

Result SetCredit(const Command& command, const HttpClient& server);
Result AddCredit(const Command& command, const HttpClient& server);

}  // namespace vardell::control
