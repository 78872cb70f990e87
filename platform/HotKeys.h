// Keys that reach this program whatever window has the focus.
// Implemented by platform/linux/ (X11 passive grabs) and by a fake. Main thread only.
#pragma once

#include <cstdint>
#include <functional>

namespace vardell {

constexpr std::uint32_t FourCharCode(const char (&text)[5]) {
  return static_cast<std::uint32_t>(static_cast<unsigned char>(text[0])) << 24 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(text[1])) << 16 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(text[2])) << 8 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(text[3]));
}

struct HotKeyId {
  std::uint32_t signature = 0;
  std::uint32_t id = 0;
  friend bool operator==(const HotKeyId&, const HotKeyId&) = default;
};

// Virtual key codes and modifier masks of the registration interface; the implementation turns them
// into the keys of this machine's keyboard.
inline constexpr std::uint32_t kKeyCodeC = 8;
inline constexpr std::uint32_t kKeyCodeH = 4;
inline constexpr std::uint32_t kControlOption = 0x1800;

class HotKeys {
 public:
  virtual ~HotKeys() = default;
  // False when another program holds the key (which is also said on standard error).
  virtual bool Register(HotKeyId id, std::uint32_t keyCode, std::uint32_t modifiers) = 0;
  // Called from the event loop at each press, also while this program holds the keyboard and
  // whatever Caps Lock and Num Lock are set to.
  virtual void SetHandler(std::function<void(HotKeyId)> pressed) = 0;
};

}  // namespace vardell
