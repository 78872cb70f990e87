// The identifiers of the applications of this machine, for completion and for doubts.
// Main thread; reads a file, or where there is no catalogue the machine's desktop entries. Nothing
// is stored.
#pragma once

#include <QVariantList>

namespace vardell::control {

// The stored catalogue (limits/ApplicationsCatalogue.h), or what one would have in it.
QVariantList KnownApplications();

}  // namespace vardell::control
