// The identifier under which the Server knows an application.
#pragma once

#include <QString>
#include <optional>

#include "platform/Processes.h"

namespace vardell {

// A bundle's own identifier, else one made of its type and creator codes, whose characters come out
// reversed within each code; for a bare executable one made of its creator code, in order. Each
// byte of a code gives one character (Latin-1), printable or not. Absent where nothing names it.
std::optional<QString> MakeApplicationIdentifier(const ApplicationInfo& application);

}  // namespace vardell
