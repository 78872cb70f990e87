// "schedule show", "set" and "clear": the hours of one limit.
#pragma once

#include "control/Answers.h"
#include "control/Arguments.h"
#include "control/HttpClient.h"

namespace vardell::control {

Result ShowSchedule(const Command& command, const HttpClient& server);
// Reads a file or standard input where the command says so, which may block for ever.
Result ChangeSchedule(const Command& command, const HttpClient& server);

}  // namespace vardell::control
