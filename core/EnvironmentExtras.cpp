#include "core/EnvironmentExtras.h"

namespace vardell {

bool IsKeptForTests(std::string_view variable) {
  return variable.starts_with("VARDELL_TEST_") || variable == "DBUS_SYSTEM_BUS_ADDRESS" ||
         variable == "ASAN_OPTIONS" || variable == "UBSAN_OPTIONS" || variable == "LSAN_OPTIONS" ||
         variable == "TZ";
}

}  // namespace vardell
