// apps list, add and running: what is installed on this machine, and what runs on it. The Server is
// not asked.
#pragma once

#include "control/Commands.h"

namespace vardell::control {

Result ListApplications(const Command& command);
Result AddApplication(const Command& command);
Result ShowRunning(const Command& command);

}  // namespace vardell::control
