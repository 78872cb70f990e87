// HotKeys through X11 passive grabs, renewed whenever the keyboard's layout changes. Where this
// program does not run on an X server every registration succeeds and no key is ever pressed.
#pragma once

#include <QAbstractNativeEventFilter>
#include <QObject>
#include <functional>
#include <optional>
#include <vector>

#include "platform/HotKeys.h"
#include "platform/linux/XcbDesktop.h"

namespace vardell {

class XcbHotKeys : public QObject, public HotKeys, private QAbstractNativeEventFilter {
 public:
  explicit XcbHotKeys(QObject* parent = nullptr);
  ~XcbHotKeys() override;

  bool Register(HotKeyId id, std::uint32_t keyCode, std::uint32_t modifiers) override;
  void SetHandler(std::function<void(HotKeyId)> pressed) override;

 private:
  struct Key {
    HotKeyId id;
    std::uint32_t keyCode = 0;
    std::uint16_t modifiers = 0;         // of the X server
    std::vector<xcb_keycode_t> grabbed;  // under the layout of now
  };

  bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;
  void KeyPressed(const xcb_key_press_event_t& event);
  void KeyReleased(const xcb_key_release_event_t& event);
  bool Grab(Key& key);
  void Ungrab(Key& key);
  bool GrabVariants(const Key& key, xcb_keycode_t code);
  void LayoutChanged();

  std::optional<XcbDesktop> desktop_;
  std::uint16_t numLockMask_ = 0;
  bool regrabScheduled_ = false;
  // A key that is held repeats: presses without a release, or with one of the same time.
  xcb_keycode_t held_ = 0;
  xcb_keycode_t released_ = 0;
  xcb_timestamp_t releasedAt_ = 0;
  std::vector<Key> keys_;
  std::function<void(HotKeyId)> pressed_;
};

}  // namespace vardell
