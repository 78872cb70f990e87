// The applications of one session as its agent sees them, made into text for another process and
// back. Looking means to read what the session's user can falsify and to talk to an X server that
// may be theirs: it is for a process with no more rights than that user, and with no time to lose.
#pragma once

#include <QByteArray>
#include <optional>
#include <vector>

#include "platform/Processes.h"
#include "platform/linux/SessionAgents.h"

namespace vardell {

struct SeenApplication {
  ProcessSerialNumber process;
  ApplicationInfo info;
};

struct SessionView {
  bool hasWindows = false;  // the X server has told: bare executables are seen too
  std::vector<SeenApplication> applications;
};

// What the agent was started with.
struct SessionDisplay {
  QByteArray display;
  QByteArray authority;
};
SessionDisplay ReadSessionDisplay(const SessionAgent& agent);

// As the user of this process, which must be the agent's. `leader` is no application.
SessionView LookAtSession(const SessionAgent& agent, const SessionDisplay& display, pid_t leader);

QByteArray WriteSessionView(const SessionView& view);
// Absent for anything but the whole of what WriteSessionView makes, and above kMaxSessionViewBytes.
std::optional<SessionView> ReadSessionView(const QByteArray& text);

}  // namespace vardell
