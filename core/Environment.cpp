#include "core/Environment.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/EnvironmentExtras.h"

namespace vardell {
namespace {

constexpr std::array<std::string_view, 12> kKept = {"DISPLAY",
                                                    "XAUTHORITY",
                                                    "DBUS_SESSION_BUS_ADDRESS",
                                                    "XDG_RUNTIME_DIR",
                                                    "XDG_CURRENT_DESKTOP",
                                                    "DESKTOP_SESSION",
                                                    "LANG",
                                                    "LANGUAGE",
                                                    "USER",
                                                    "LOGNAME",
                                                    "WAYLAND_DISPLAY",
                                                    "XDG_SESSION_TYPE"};

bool IsKept(std::string_view name) {
  if (name.starts_with("LC_")) return true;
  for (const std::string_view kept : kKept) {
    if (name == kept) return true;
  }
  return IsKeptForTests(name);
}

std::vector<std::pair<std::string, std::string>> KeptVariables() {
  std::vector<std::pair<std::string, std::string>> kept;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    const std::string_view text(*variable);
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || !IsKept(text.substr(0, equals))) continue;
    kept.emplace_back(text.substr(0, equals), text.substr(equals + 1));
  }
  return kept;
}

}  // namespace

void CleanEnvironment() {
  const auto kept = KeptVariables();
  clearenv();
  for (const auto& [name, value] : kept) setenv(name.c_str(), value.c_str(), 1);
  if (const passwd* account = getpwuid(getuid()); account && account->pw_dir) {
    setenv("HOME", account->pw_dir, 1);
  }
  setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
  setenv("QT_QPA_PLATFORM", "xcb", 1);
}

}  // namespace vardell
