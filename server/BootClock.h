// The clock of the machine's boot, which goes on while the machine sleeps.
#pragma once

#include <QString>
#include <chrono>

namespace vardell::server {

std::chrono::milliseconds TimeSinceBoot();

// Tells one boot from another; empty where the machine does not say.
QString BootId();

}  // namespace vardell::server
