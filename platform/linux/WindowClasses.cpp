#include "platform/linux/WindowClasses.h"

#include "platform/linux/XcbDesktop.h"

namespace vardell {
namespace {

constexpr std::uint32_t kMaxWindows = 4096;
constexpr std::uint32_t kMaxClassWords = 64;  // of 4 bytes

QList<QByteArray> ClassesOf(const XcbDesktop& desktop, xcb_window_t window) {
  xcb_connection_t* c = desktop.Connection();
  const XcbReply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
      c, xcb_get_property(c, 0, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, kMaxClassWords),
      nullptr));
  if (!reply || reply->format != 8) return {};
  const QByteArray text(static_cast<const char*>(xcb_get_property_value(reply.get())),
                        xcb_get_property_value_length(reply.get()));
  QList<QByteArray> classes = text.split('\0');
  classes.removeAll(QByteArray());
  return classes;
}

}  // namespace

QList<QByteArray> WindowClassesOn(const XcbDesktop& desktop, pid_t owner) {
  QList<QByteArray> classes;
  for (const xcb_window_t window : desktop.Property(
           desktop.Root(), desktop.Atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW, kMaxWindows)) {
    if (desktop.WindowPid(window) == owner) classes += ClassesOf(desktop, window);
  }
  return classes;
}

}  // namespace vardell
