// The environment that the agent lives in, before anything reads it. Whoever starts the agent can
// set variables, and a child must not be able to set one and be free.
#pragma once

namespace vardell {

// Keeps the variables that a session needs (display, session bus, language) and drops all others;
// HOME and PATH are set anew, from the account and to the system's folders. To be called first in
// main, before Qt and before any thread. Builds with test hooks also keep those, and the address of
// the system bus.
void CleanEnvironment();

}  // namespace vardell
