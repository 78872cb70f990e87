#include "platform/linux/XcbStacking.h"

#include <algorithm>

namespace vardell {

namespace {

using Windows = std::vector<xcb_window_t>;

// Of the root, lowest first.
Windows Children(const XcbDesktop& desktop) {
  xcb_connection_t* c = desktop.Connection();
  const XcbReply<xcb_query_tree_reply_t> tree(
      xcb_query_tree_reply(c, xcb_query_tree(c, desktop.Root()), nullptr));
  if (!tree) return {};
  const xcb_window_t* first = xcb_query_tree_children(tree.get());
  return {first, first + xcb_query_tree_children_length(tree.get())};
}

bool AnyCanBeSeen(const XcbDesktop& desktop, const Windows& windows) {
  xcb_connection_t* c = desktop.Connection();
  std::vector<xcb_get_window_attributes_cookie_t> asked;
  for (const xcb_window_t window : windows) asked.push_back(xcb_get_window_attributes(c, window));
  bool any = false;
  for (const xcb_get_window_attributes_cookie_t cookie : asked) {
    const XcbReply<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(c, cookie, nullptr));
    any |= attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE &&
           attributes->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT;
  }
  return any;
}

}  // namespace

void RaiseAboveOthers(const XcbDesktop& desktop, const Windows& windows) {
  xcb_connection_t* c = desktop.Connection();
  const Windows children = Children(desktop);
  const auto lowest =
      std::find_first_of(children.begin(), children.end(), windows.begin(), windows.end());
  Windows own;
  Windows others;
  for (auto it = lowest; it != children.end(); ++it)
    (desktop.IsOwn(*it) ? own : others).push_back(*it);
  if (!AnyCanBeSeen(desktop, others)) return;
  constexpr std::uint32_t kAbove = XCB_STACK_MODE_ABOVE;
  for (const xcb_window_t window : own)
    xcb_configure_window(c, window, XCB_CONFIG_WINDOW_STACK_MODE, &kAbove);
  xcb_flush(c);
}

}  // namespace vardell
