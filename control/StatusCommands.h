// status, metrics and ledger.
#pragma once

#include "control/Commands.h"

namespace vardell::control {

Result ShowStatus(const Command& command, const HttpClient& server);
Result ShowMetrics(const Command& command, const HttpClient& server);
Result ShowLedger(const Command& command, const HttpClient& server, Terminal& terminal);

}  // namespace vardell::control
