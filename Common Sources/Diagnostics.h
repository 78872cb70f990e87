// Lines for whoever reads the program's output. Any thread.
#pragma once

#include <QString>

namespace vardell {

// One line, out at once. Control characters are shown as '?', so that a name from outside cannot
// make up lines of its own.
void PrintLine(const QString& text);       // standard output
void PrintErrorLine(const QString& text);  // standard error

}  // namespace vardell
