#include "core/EnvironmentExtras.h"

namespace vardell {

bool IsKeptForTests(std::string_view) {
  return false;
}

}  // namespace vardell
