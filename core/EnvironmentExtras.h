// What builds with test hooks keep of the environment besides. EnvironmentExtras.cpp or
// NoEnvironmentExtras.cpp, whichever the build chose.
#pragma once

#include <string_view>

namespace vardell {

bool IsKeptForTests(std::string_view variable);

}  // namespace vardell
