// What vardellctl does with a command: asks the Server, and makes text of the answers.
#pragma once

#include "control/Answers.h"
#include "control/Arguments.h"
#include "control/HttpClient.h"

namespace vardell::control {

class Terminal;

// Any verb but Help and Version. Blocks. `terminal` shows how far long work has come, and asks.
Result Run(const Command& command, const HttpClient& server, Terminal& terminal);

}  // namespace vardell::control
