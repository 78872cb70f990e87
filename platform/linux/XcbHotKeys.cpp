#include "platform/linux/XcbHotKeys.h"

#include <xcb/xcb_keysyms.h>
#include <QCoreApplication>
#include <QTimer>

#include <algorithm>
#include <utility>

#include "Common Sources/Diagnostics.h"

namespace vardell {

namespace {

constexpr std::uint32_t kControlKey = 0x1000;
constexpr std::uint32_t kOptionKey = 0x0800;
constexpr xcb_keysym_t kNumLockKeysym = 0xff7f;

struct KeyOfKeyboard {
  std::uint32_t keyCode;  // of the registration interface
  xcb_keysym_t keysym;
  xcb_keycode_t position;  // of a PC keyboard, for layouts that have no Latin letters
};
constexpr KeyOfKeyboard kKeys[] = {{kKeyCodeC, 'c', 54}, {kKeyCodeH, 'h', 43}};

using KeySymbols = std::unique_ptr<xcb_key_symbols_t, decltype(&xcb_key_symbols_free)>;

std::vector<xcb_keycode_t> CodesOf(xcb_key_symbols_t* symbols, xcb_keysym_t keysym) {
  const XcbReply<xcb_keycode_t> found(xcb_key_symbols_get_keycode(symbols, keysym));
  std::vector<xcb_keycode_t> codes;
  for (const xcb_keycode_t* code = found.get(); code && *code != XCB_NO_SYMBOL; ++code)
    codes.push_back(*code);
  return codes;
}

std::vector<xcb_keycode_t> CodesOfKey(xcb_connection_t* connection, std::uint32_t keyCode) {
  const auto* key = std::find_if(std::begin(kKeys), std::end(kKeys),
                                 [&](const KeyOfKeyboard& one) { return one.keyCode == keyCode; });
  const KeySymbols symbols(xcb_key_symbols_alloc(connection), xcb_key_symbols_free);
  if (key == std::end(kKeys) || !symbols) return {};
  std::vector<xcb_keycode_t> codes = CodesOf(symbols.get(), key->keysym);
  if (codes.empty()) codes.push_back(key->position);
  return codes;
}

// The modifier that Num Lock sets on this keyboard, 0 where it has no Num Lock.
std::uint16_t NumLockMask(xcb_connection_t* connection) {
  const KeySymbols symbols(xcb_key_symbols_alloc(connection), xcb_key_symbols_free);
  const XcbReply<xcb_get_modifier_mapping_reply_t> map(
      xcb_get_modifier_mapping_reply(connection, xcb_get_modifier_mapping(connection), nullptr));
  if (!symbols || !map) return 0;
  const std::vector<xcb_keycode_t> numLock = CodesOf(symbols.get(), kNumLockKeysym);
  const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(map.get());
  std::uint16_t mask = 0;
  for (int i = 0; i < xcb_get_modifier_mapping_keycodes_length(map.get()); ++i) {
    if (std::find(numLock.begin(), numLock.end(), codes[i]) != numLock.end())
      mask |= static_cast<std::uint16_t>(1u << (i / map->keycodes_per_modifier));
  }
  return mask;
}

std::uint16_t ServerModifiers(std::uint32_t modifiers) {
  return static_cast<std::uint16_t>((modifiers & kControlKey ? XCB_MOD_MASK_CONTROL : 0) |
                                    (modifiers & kOptionKey ? XCB_MOD_MASK_1 : 0));
}

}  // namespace

XcbHotKeys::XcbHotKeys(QObject* parent) : QObject(parent), desktop_(XcbDesktop::Open()) {
  if (!desktop_) return;
  numLockMask_ = NumLockMask(desktop_->Connection());
  QCoreApplication::instance()->installNativeEventFilter(this);
}

XcbHotKeys::~XcbHotKeys() {
  if (!desktop_ || !XcbDesktop::Open()) return;
  QCoreApplication::instance()->removeNativeEventFilter(this);
  for (Key& key : keys_) Ungrab(key);
}

bool XcbHotKeys::Register(HotKeyId id, std::uint32_t keyCode, std::uint32_t modifiers) {
  if (!desktop_) return true;
  Key key{id, keyCode, ServerModifiers(modifiers), {}};
  if (!Grab(key)) return false;
  keys_.push_back(std::move(key));
  return true;
}

void XcbHotKeys::SetHandler(std::function<void(HotKeyId)> pressed) {
  pressed_ = std::move(pressed);
}

bool XcbHotKeys::Grab(Key& key) {
  for (const xcb_keycode_t code : CodesOfKey(desktop_->Connection(), key.keyCode)) {
    key.grabbed.push_back(code);
    if (GrabVariants(key, code)) continue;
    PrintErrorLine(QStringLiteral("VARDELL ERROR: Hot key '%1' is held by another program.")
                       .arg(QChar(static_cast<char16_t>(key.id.id >> 24))));
    Ungrab(key);
    return false;
  }
  return true;
}

bool XcbHotKeys::GrabVariants(const Key& key, xcb_keycode_t code) {
  std::vector<xcb_void_cookie_t> asked;
  for (const std::uint16_t locks :
       {std::uint16_t{0}, std::uint16_t{XCB_MOD_MASK_LOCK}, numLockMask_,
        static_cast<std::uint16_t>(XCB_MOD_MASK_LOCK | numLockMask_)}) {
    asked.push_back(xcb_grab_key_checked(desktop_->Connection(), 1, desktop_->Root(),
                                         static_cast<std::uint16_t>(key.modifiers | locks), code,
                                         XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC));
  }
  bool granted = true;
  for (const xcb_void_cookie_t cookie : asked) {
    const XcbReply<xcb_generic_error_t> error(xcb_request_check(desktop_->Connection(), cookie));
    granted = granted && !error;
  }
  return granted;
}

void XcbHotKeys::Ungrab(Key& key) {
  for (const xcb_keycode_t code : key.grabbed) {
    for (const unsigned locks : {0u, unsigned{XCB_MOD_MASK_LOCK}, unsigned{numLockMask_},
                                 XCB_MOD_MASK_LOCK | unsigned{numLockMask_}})
      xcb_ungrab_key(desktop_->Connection(), code, desktop_->Root(),
                     static_cast<std::uint16_t>(key.modifiers | locks));
  }
  xcb_flush(desktop_->Connection());
  key.grabbed.clear();
}

bool XcbHotKeys::nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) {
  if (eventType != "xcb_generic_event_t") return false;
  const auto* event = static_cast<const xcb_generic_event_t*>(message);
  const std::uint8_t type = event->response_type & 0x7f;
  if (type == XCB_MAPPING_NOTIFY) LayoutChanged();
  if (type == XCB_KEY_PRESS) KeyPressed(*reinterpret_cast<const xcb_key_press_event_t*>(event));
  if (type == XCB_KEY_RELEASE)
    KeyReleased(*reinterpret_cast<const xcb_key_release_event_t*>(event));
  return false;
}

// Presses come for the root window by the grab, and for a window of this program while that holds
// the keyboard.
void XcbHotKeys::KeyPressed(const xcb_key_press_event_t& event) {
  const bool repeats =
      event.detail == held_ || (event.detail == released_ && event.time == releasedAt_);
  held_ = event.detail;
  if (repeats) return;
  const unsigned modifiers = event.state & 0xffu & ~(XCB_MOD_MASK_LOCK | unsigned{numLockMask_});
  for (const Key& key : keys_) {
    const bool isCode =
        std::find(key.grabbed.begin(), key.grabbed.end(), event.detail) != key.grabbed.end();
    if (!isCode || modifiers != key.modifiers) continue;
    // Not from inside Qt's reading of events: the handler does as it likes.
    QTimer::singleShot(0, this, [this, id = key.id] {
      if (pressed_) pressed_(id);
    });
    return;
  }
}

void XcbHotKeys::KeyReleased(const xcb_key_release_event_t& event) {
  if (event.detail == held_) held_ = 0;
  released_ = event.detail;
  releasedAt_ = event.time;
}

// One change of the layout comes as a burst of notices.
void XcbHotKeys::LayoutChanged() {
  if (std::exchange(regrabScheduled_, true)) return;
  QTimer::singleShot(0, this, [this] {
    regrabScheduled_ = false;
    for (Key& key : keys_) Ungrab(key);
    numLockMask_ = NumLockMask(desktop_->Connection());
    for (Key& key : keys_) (void)Grab(key);
    xcb_flush(desktop_->Connection());
  });
}

}  // namespace vardell
