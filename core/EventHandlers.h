// What the agent does when something happens around it. Every handler runs from the event loop,
// never inside a tick, a request or another handler, and returns 0 for an event that it handled or
// kEventNotHandled for a kind that it does not know. Main thread only; a launch blocks for the
// requests that it makes.
#pragma once

#include <cstdint>
#include <optional>

#include "core/Agent.h"

namespace vardell {

inline constexpr std::int32_t kNoError = 0;
inline constexpr std::int32_t kEventNotHandled = -9874;

inline constexpr std::uint32_t kEventClassSystem = FourCharCode("macs");
inline constexpr std::uint32_t kEventClassApplication = FourCharCode("appl");
inline constexpr std::uint32_t kEventClassKeyboard = FourCharCode("keyb");

inline constexpr std::uint32_t kEventHotKeyPressed = 5;
inline constexpr std::uint32_t kEventAppLaunched = 5;
inline constexpr std::uint32_t kEventAppTerminated = 6;
inline constexpr std::uint32_t kEventAppFrontSwitched = 7;
inline constexpr std::uint32_t kEventSystemUserSessionActivated = 10;
inline constexpr std::uint32_t kEventSystemUserSessionDeactivated = 11;

inline constexpr HotKeyId kShowOverlayHotKey{FourCharCode("QFil"), FourCharCode("Ckey")};
inline constexpr HotKeyId kStatusItemHotKey{FourCharCode("QFil"), FourCharCode("Hkey")};

struct Event {
  std::uint32_t eventClass = 0;
  std::uint32_t kind = 0;
  ProcessSerialNumber process;  // of a launch or an end
  HotKeyId hotKey;              // of a hot key
};

std::int32_t HandleSessionEvent(Agent& agent, const Event& event);
std::int32_t HandleApplicationEvent(Agent& agent, const Event& event);
std::int32_t HandleFrontSwitchEvent(Agent& agent, const Event& event);
std::int32_t HandleHotKeyEvent(Agent& agent, const Event& event);

// Connects the platform's notices to the handlers above.
void InstallEventHandlers(Agent& agent);
void RegisterHotKeys(Agent& agent);

}  // namespace vardell
