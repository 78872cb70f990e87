#include "platform/linux/XcbDesktop.h"

#include <limits.h>
#include <unistd.h>
#include <xcb/res.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace vardell {

namespace {

constexpr std::uint32_t kMaxClientList = 4096;

}  // namespace

std::optional<XcbDesktop> XcbDesktop::On(xcb_connection_t* connection) {
  if (!connection || xcb_connection_has_error(connection)) return std::nullopt;
  return XcbDesktop(connection, xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root);
}

xcb_atom_t XcbDesktop::Atom(const char* name) const {
  const XcbReply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
      connection_,
      xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(std::strlen(name)), name),
      nullptr));
  return reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
}

std::vector<std::uint32_t> XcbDesktop::Property(xcb_window_t window, xcb_atom_t property,
                                                xcb_atom_t type, std::uint32_t most) const {
  const XcbReply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
      connection_, xcb_get_property(connection_, 0, window, property, type, 0, most), nullptr));
  if (!reply || reply->format != 32) return {};
  const auto* items = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
  return {items, items + reply->value_len};
}

bool XcbDesktop::HasSelectionOwner(const char* selection) const {
  const XcbReply<xcb_get_selection_owner_reply_t> reply(xcb_get_selection_owner_reply(
      connection_, xcb_get_selection_owner(connection_, Atom(selection)), nullptr));
  return reply && reply->owner != XCB_WINDOW_NONE;
}

pid_t XcbDesktop::WindowPid(xcb_window_t window) const {
  if (!Exists(window)) return 0;
  if (const std::optional<pid_t> pid = ResourcePid(window)) return *pid;
  const auto told = Property(window, Atom("_NET_WM_PID"), XCB_ATOM_CARDINAL, 1);
  return !told.empty() && IsFromThisMachine(window) ? static_cast<pid_t>(told[0]) : 0;
}

// The resource extension answers for the client that has the window's range of ids now: a window
// manager leaves the id of a destroyed window as the active one, and the next client gets its
// range.
bool XcbDesktop::Exists(xcb_window_t window) const {
  return XcbReply<xcb_get_window_attributes_reply_t>(xcb_get_window_attributes_reply(
             connection_, xcb_get_window_attributes(connection_, window), nullptr)) != nullptr;
}

std::optional<pid_t> XcbDesktop::ResourcePid(xcb_window_t window) const {
  const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection_, &xcb_res_id);
  if (!extension || !extension->present) return std::nullopt;
  const xcb_res_client_id_spec_t spec{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
  const XcbReply<xcb_res_query_client_ids_reply_t> reply(xcb_res_query_client_ids_reply(
      connection_, xcb_res_query_client_ids(connection_, 1, &spec), nullptr));
  if (!reply) return std::nullopt;
  for (auto it = xcb_res_query_client_ids_ids_iterator(reply.get()); it.rem > 0;
       xcb_res_client_id_value_next(&it)) {
    if (xcb_res_client_id_value_value_length(it.data) > 0)
      return static_cast<pid_t>(*xcb_res_client_id_value_value(it.data));
  }
  return std::nullopt;
}

bool XcbDesktop::IsFromThisMachine(xcb_window_t window) const {
  const XcbReply<xcb_get_property_reply_t> reply(
      xcb_get_property_reply(connection_,
                             xcb_get_property(connection_, 0, window, XCB_ATOM_WM_CLIENT_MACHINE,
                                              XCB_ATOM_STRING, 0, HOST_NAME_MAX / 4 + 1),
                             nullptr));
  char host[HOST_NAME_MAX + 1] = {};
  if (!reply || reply->format != 8 || gethostname(host, sizeof host - 1) != 0) return false;
  return std::string_view(static_cast<const char*>(xcb_get_property_value(reply.get())),
                          reply->value_len) == host;
}

std::uint32_t XcbDesktop::RootEvents() const {
  const XcbReply<xcb_get_window_attributes_reply_t> reply(xcb_get_window_attributes_reply(
      connection_, xcb_get_window_attributes(connection_, root_), nullptr));
  return reply ? reply->your_event_mask : 0;
}

void XcbDesktop::SelectRootEvents(std::uint32_t mask) const {
  const std::uint32_t all = mask | RootEvents();
  xcb_change_window_attributes(connection_, root_, XCB_CW_EVENT_MASK, &all);
  xcb_flush(connection_);
}

bool XcbDesktop::IsOwn(xcb_window_t window) const {
  const xcb_setup_t* setup = xcb_get_setup(connection_);
  return (window & ~setup->resource_id_mask) == setup->resource_id_base;
}

namespace {

// Windows that no window manager manages: full-screen games of the old kind, or a session without
// a window manager.
std::vector<xcb_window_t> MappedChildrenOfRoot(const XcbDesktop& desktop) {
  xcb_connection_t* c = desktop.Connection();
  const XcbReply<xcb_query_tree_reply_t> tree(
      xcb_query_tree_reply(c, xcb_query_tree(c, desktop.Root()), nullptr));
  if (!tree) return {};
  const xcb_window_t* children = xcb_query_tree_children(tree.get());
  std::vector<xcb_get_window_attributes_cookie_t> asked;
  for (int i = 0; i < xcb_query_tree_children_length(tree.get()); ++i)
    asked.push_back(xcb_get_window_attributes(c, children[i]));
  std::vector<xcb_window_t> mapped;
  for (std::size_t i = 0; i < asked.size(); ++i) {
    const XcbReply<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(c, asked[i], nullptr));
    if (attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE &&
        attributes->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT)
      mapped.push_back(children[i]);
  }
  return mapped;
}

pid_t WindowManagerPid(const XcbDesktop& desktop) {
  const auto check = desktop.Property(desktop.Root(), desktop.Atom("_NET_SUPPORTING_WM_CHECK"),
                                      XCB_ATOM_WINDOW, 1);
  return check.empty() ? 0 : desktop.WindowPid(check[0]);
}

}  // namespace

std::vector<pid_t> WindowOwnersOn(const XcbDesktop& desktop) {
  std::vector<xcb_window_t> windows = desktop.Property(
      desktop.Root(), desktop.Atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW, kMaxClientList);
  const std::vector<xcb_window_t> children = MappedChildrenOfRoot(desktop);
  windows.insert(windows.end(), children.begin(), children.end());

  const pid_t manager = WindowManagerPid(desktop);
  std::vector<pid_t> owners;
  for (const xcb_window_t window : windows) {
    const pid_t pid = desktop.WindowPid(window);
    if (pid > 0 && pid != manager && pid != getpid()) owners.push_back(pid);
  }
  std::sort(owners.begin(), owners.end());
  owners.erase(std::unique(owners.begin(), owners.end()), owners.end());
  return owners;
}

}  // namespace vardell
