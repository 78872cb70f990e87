// A machine and a user that a test chooses.
#pragma once

#include "platform/System.h"

namespace vardell {

class FakeSystem : public System {
 public:
  SystemVersion Version() override { return version; }
  QString UserShortName() override { return userShortName; }

  SystemVersion version{10, 10};
  QString userShortName = QStringLiteral("anna");
};

}  // namespace vardell
