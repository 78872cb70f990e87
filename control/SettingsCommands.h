// settings: how the agents of this machine behave. The Server is not asked.
#pragma once

#include "control/Commands.h"

namespace vardell::control {

Result ShowSettings(const Command& command);

// settings set and settings unset.
Result ChangeSettings(const Command& command);

}  // namespace vardell::control
