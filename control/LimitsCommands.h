// limits, and credit show.
#pragma once

#include "control/Commands.h"

namespace vardell::control {

// limits show and credit show.
Result ShowLimits(const Command& command, const HttpClient& server, Terminal& terminal);

// limits set, and limits preset with a preset.
Result SetLimits(const Command& command, const HttpClient& server);

// Keys back to their first values, or the whole limit away.
Result UnsetLimits(const Command& command, const HttpClient& server);

// limits preset, with or without one.
Result ApplyPreset(const Command& command, const HttpClient& server);

}  // namespace vardell::control
