#pragma once

#include "platform/System.h"

namespace vardell {

// Answers with the version whose login window is found through the session's leader.
class LinuxSystem : public System {
 public:
  SystemVersion Version() override;
  QString UserShortName() override;
};

}  // namespace vardell
