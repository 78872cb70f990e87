// The machine's clocks: that of its boot, which goes on while the machine sleeps, and what the one
// on the wall is worth.
#pragma once

#include <QString>
#include <QTimeZone>
#include <chrono>

namespace vardell::server {

std::chrono::milliseconds TimeSinceBoot();

// Tells one boot from another; empty where the machine does not say.
QString BootId();

// Whether something keeps the wall clock right: a time service that the kernel knows of, or the
// system's own one since it first heard of the time. False also where that cannot be told.
bool IsClockSet();

// Of the wall clock. An offset alone where the machine's zone has no name.
QTimeZone SystemZone();

}  // namespace vardell::server
