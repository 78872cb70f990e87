// What needs Qt's own connection: programs without one are linked without Qt's windows.

#include <QGuiApplication>

#include "platform/linux/WindowClasses.h"
#include "platform/linux/XcbDesktop.h"

namespace vardell {

std::optional<XcbDesktop> XcbDesktop::Open() {
  if (!qGuiApp) return std::nullopt;
  const auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
  return On(x11 ? x11->connection() : nullptr);
}

// The selection belongs to the connection, which is the application's: so does the number of those
// who need it.
void XcbDesktop::WatchChildrenOfRoot(bool watch) const {
  constexpr char kWatchers[] = "vardellWatchersOfRoot";
  constexpr std::uint32_t kEvents = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
  const int watchers = qGuiApp->property(kWatchers).toInt() + (watch ? 1 : -1);
  qGuiApp->setProperty(kWatchers, watchers);
  const std::uint32_t mask = watchers > 0 ? RootEvents() | kEvents : RootEvents() & ~kEvents;
  xcb_change_window_attributes(connection_, root_, XCB_CW_EVENT_MASK, &mask);
  xcb_flush(connection_);
}

std::vector<pid_t> WindowOwners() {
  const std::optional<XcbDesktop> desktop = XcbDesktop::Open();
  return desktop ? WindowOwnersOn(*desktop) : std::vector<pid_t>();
}

QList<QByteArray> WindowClasses(pid_t owner) {
  const std::optional<XcbDesktop> desktop = XcbDesktop::Open();
  return desktop ? WindowClassesOn(*desktop, owner) : QList<QByteArray>();
}

}  // namespace vardell
