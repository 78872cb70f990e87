// Taking all screens and all input for a full-screen message.
// Implemented by platform/linux/ (X11) and by a fake. Main thread only.
#pragma once

#include <QEvent>
#include <QRect>
#include <QWindow>

namespace vardell {

// Modes and options of SetSystemUIMode, as the messages use them.
enum class SystemUIMode { Normal = 0, ContentHidden = 2 };
inline constexpr int kUIOptionDisableProcessSwitch = 8;

// Sent from the event loop to a top-level window of this program, and by it to its widget, that is
// to be seen and was hidden, destroyed, moved or sized, as other programs may do behind the
// toolkit's back.
inline constexpr auto kWindowTouched = static_cast<QEvent::Type>(QEvent::User + 1);

class Screens {
 public:
  virtual ~Screens() = default;
  // The primary screen in global coordinates (logical pixels).
  virtual QRect MainDisplayBounds() = 0;
  // True while something composes the windows, so that a translucent one shows what lies under it.
  virtual bool IsComposited() = 0;
  // Covers every screen but the primary one with black, also those that are plugged in later.
  virtual void CaptureSecondaryDisplays() = 0;
  virtual void ReleaseDisplays() = 0;
  // ContentHidden takes keyboard and pointer for `window` (tried again from a timer while another
  // program holds them); Normal gives them back. A click on any screen reaches `window`.
  // While they are held, windows of other programs are put below `window` and the covers again
  // whenever they come above them, and neither a shape nor translucency that another program gives
  // to these lasts. Where `window` is destroyed it is to be made anew and given here again.
  virtual void SetSystemUIMode(SystemUIMode mode, int options, QWindow* window) = 0;
  // True while keyboard and pointer are held and the screens are covered; false also where they can
  // never be.
  virtual bool HoldsInput() = 0;
};

}  // namespace vardell
