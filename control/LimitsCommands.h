// limits and credit.
#pragma once

#include "control/Commands.h"

namespace vardell::control {

// limits show and credit show.
Result ShowLimits(const Command& command, const HttpClient& server, Terminal& terminal);

Result SetLimits(const Command& command, const HttpClient& server);

// credit set.
Result SetCredit(const Command& command, const HttpClient& server);

}  // namespace vardell::control
