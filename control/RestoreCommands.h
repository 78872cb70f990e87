// restore.
#pragma once

#include "control/Commands.h"

namespace vardell::control {

Result RestoreBackup(const Command& command, const HttpClient& server, Terminal& terminal);

}  // namespace vardell::control
