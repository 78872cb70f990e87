// What vardellctl does with a command: asks the Server, and makes text of the answers.
#pragma once

#include <QString>

#include "control/Arguments.h"
#include "control/HttpClient.h"

namespace vardell::control {

enum class ExitStatus { Done = 0, Failed = 1, Usage = 2, Unreachable = 3 };

struct Result {
  ExitStatus status = ExitStatus::Done;
  QString output;  // for standard output
  QString error;   // for standard error: one or two lines without the program's name
};

// Any verb but Help and Version. Blocks.
Result Run(const Command& command, const HttpClient& server);

}  // namespace vardell::control
