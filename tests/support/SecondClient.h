// Another X client than the program under test, by a connection of its own: tries for input, sets
// properties, and looks at what is on the screen. Also xdotool and friends in a program of theirs.
#pragma once

#include <xcb/shape.h>
#include <xcb/xcb.h>

#include <QRect>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Program.h"

namespace vardell::test {

// A reply of xcb's, which is the caller's to free.
template <typename Reply>
std::unique_ptr<Reply, decltype(&std::free)> Owned(Reply* reply) {
  return {reply, std::free};
}

class SecondClient {
 public:
  SecondClient() : connection_(xcb_connect(nullptr, nullptr)) {
    root_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
  }
  ~SecondClient() { xcb_disconnect(connection_); }
  SecondClient(const SecondClient&) = delete;
  SecondClient& operator=(const SecondClient&) = delete;

  // True when the input can be had, which is then given back at once.
  bool CanTakeKeyboard() {
    const bool taken = TakeKeyboard();
    xcb_ungrab_keyboard(connection_, XCB_CURRENT_TIME);
    Sync();
    return taken;
  }
  bool CanTakePointer() {
    const bool taken = TakePointer();
    ReleasePointer();
    return taken;
  }

  bool TakePointer() {
    const auto reply = Owned(xcb_grab_pointer_reply(
        connection_,
        xcb_grab_pointer(connection_, 0, root_, XCB_EVENT_MASK_BUTTON_PRESS, XCB_GRAB_MODE_ASYNC,
                         XCB_GRAB_MODE_ASYNC, 0, 0, XCB_CURRENT_TIME),
        nullptr));
    return reply && reply->status == XCB_GRAB_STATUS_SUCCESS;
  }
  void ReleasePointer() {
    xcb_ungrab_pointer(connection_, XCB_CURRENT_TIME);
    Sync();
  }

  // False when another client has that key.
  bool GrabKey(std::uint16_t modifiers, xcb_keycode_t code) {
    const auto error = Owned(xcb_request_check(
        connection_, xcb_grab_key_checked(connection_, 1, root_, modifiers, code,
                                          XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC)));
    return !error;
  }

  // Shows a window above everything that no window manager manages, and raises it again each time.
  void ShowOnTop(const QRect& where) {
    constexpr std::uint32_t kValues[] = {0x00ff00, 1};
    constexpr std::uint32_t kAbove = XCB_STACK_MODE_ABOVE;
    if (onTop_ == XCB_WINDOW_NONE) {
      onTop_ = xcb_generate_id(connection_);
      xcb_create_window(
          connection_, XCB_COPY_FROM_PARENT, onTop_, root_, static_cast<std::int16_t>(where.x()),
          static_cast<std::int16_t>(where.y()), static_cast<std::uint16_t>(where.width()),
          static_cast<std::uint16_t>(where.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
          XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, kValues);
    }
    xcb_map_window(connection_, onTop_);
    xcb_configure_window(connection_, onTop_, XCB_CONFIG_WINDOW_STACK_MODE, &kAbove);
    Sync();
  }
  // Takes another client's window off the screen.
  void Hide(xcb_window_t window) {
    xcb_unmap_window(connection_, window);
    Sync();
  }

  // Leaves nothing of another client's window to be seen or clicked, by its shape.
  void CutAway(xcb_window_t window) {
    for (const xcb_shape_kind_t kind : {XCB_SHAPE_SK_BOUNDING, XCB_SHAPE_SK_INPUT})
      xcb_shape_rectangles(connection_, XCB_SHAPE_SO_SET, kind, XCB_CLIP_ORDERING_UNSORTED, window,
                           0, 0, 0, nullptr);
    Sync();
  }
  bool IsCut(xcb_window_t window) {
    const auto extents = Owned(xcb_shape_query_extents_reply(
        connection_, xcb_shape_query_extents(connection_, window), nullptr));
    const auto input = Owned(xcb_shape_get_rectangles_reply(
        connection_, xcb_shape_get_rectangles(connection_, window, XCB_SHAPE_SK_INPUT), nullptr));
    return !extents || extents->bounding_shaped || !input || input->rectangles_len != 1;
  }
  bool CanBeSeen(xcb_window_t window) {
    const auto attributes = Owned(xcb_get_window_attributes_reply(
        connection_, xcb_get_window_attributes(connection_, window), nullptr));
    return attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
  }

  // The rectangles of the shown windows that no window manager manages, lowest first.
  std::vector<QRect> UnmanagedWindows() {
    const auto tree =
        Owned(xcb_query_tree_reply(connection_, xcb_query_tree(connection_, root_), nullptr));
    std::vector<QRect> found;
    for (int i = 0; tree && i < xcb_query_tree_children_length(tree.get()); ++i) {
      const xcb_window_t window = xcb_query_tree_children(tree.get())[i];
      const auto attributes = Owned(xcb_get_window_attributes_reply(
          connection_, xcb_get_window_attributes(connection_, window), nullptr));
      const auto geometry = Owned(
          xcb_get_geometry_reply(connection_, xcb_get_geometry(connection_, window), nullptr));
      if (attributes && geometry && attributes->override_redirect &&
          attributes->map_state == XCB_MAP_STATE_VIEWABLE)
        found.emplace_back(geometry->x, geometry->y, geometry->width, geometry->height);
    }
    return found;
  }

 private:
  bool TakeKeyboard() {
    const auto reply =
        Owned(xcb_grab_keyboard_reply(connection_,
                                      xcb_grab_keyboard(connection_, 0, root_, XCB_CURRENT_TIME,
                                                        XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC),
                                      nullptr));
    return reply && reply->status == XCB_GRAB_STATUS_SUCCESS;
  }
  void Sync() {
    Owned(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
  }

  xcb_connection_t* connection_;
  xcb_window_t root_ = XCB_WINDOW_NONE;
  xcb_window_t onTop_ = XCB_WINDOW_NONE;
};

// Runs an X tool to its end; what it does may need the event loop afterwards, not meanwhile.
inline void Tool(const std::vector<std::string>& command) {
  EXPECT_EQ(Run(command, {}).status, 0) << command[0];
}

}  // namespace vardell::test
