// What is known of a restore that was killed: where the state before it is kept. The note stands
// beside the settings file from before the first step of a restore until its end.
#pragma once

#include <QString>

namespace vardell::control {

// The path of the kept state; empty where there is no note, or none that we may read.
QString NotedRestore();

// Empty, or for people why not.
[[nodiscard]] QString NoteRestore(const QString& keptPath);
void ForgetRestore();

// What a command tells at its end, about a restore that is no longer running; empty for nothing.
QString UnfinishedRestoreNotice();

}  // namespace vardell::control
