// Facts about the machine and its user. Main thread only; nothing blocks.
#pragma once

#include <QString>

namespace vardell {

struct SystemVersion {
  int major = 0;
  int minor = 0;
};

class System {
 public:
  virtual ~System() = default;
  virtual SystemVersion Version() = 0;
  // The short (login) name of the user that this process runs as, not what the environment says.
  virtual QString UserShortName() = 0;
};

}  // namespace vardell
