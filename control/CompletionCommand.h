// complete.
#pragma once

#include "control/Commands.h"

namespace vardell::control {

// How long `server` should wait for an answer.
inline constexpr std::chrono::seconds kCompletionPatience{1};

// Never an error and never slow: ends the program, without a word, where it takes two seconds.
Result PrintCandidates(const Command& command, const HttpClient& server);

}  // namespace vardell::control
