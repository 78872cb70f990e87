// Two environment variables that only test builds (-DVARDELL_TEST_HOOKS=ON) obey: in every other
// build the functions below answer with constants, and the names are not in the binary.
// Implemented by TestHooks.cpp or NoTestHooks.cpp, whichever the build chose.
#pragma once

#include <QString>
#include <chrono>

namespace vardell {

// The folder named by VARDELL_TEST_ROOT, without a final slash; empty where there is none.
QString TestRoot();

// `absolutePath` with TestRoot() before it: every absolute path of the product goes through here.
QString ProductPath(const QString& absolutePath);

// How long a second of enforcement lasts: VARDELL_TEST_SECOND_MS, otherwise 1000 ms. It scales the
// tick, the start-up and retry intervals, the alerts' timers and the Server's credit clock. Network
// deadlines are real seconds always.
std::chrono::milliseconds SecondLength();

}  // namespace vardell
