#include "platform/linux/XcbWindowOwners.h"

#include <QCoreApplication>
#include <utility>

#include "platform/linux/XcbDesktop.h"

namespace vardell {

XcbWindowOwners::XcbWindowOwners(Ask ask) : ask_(std::move(ask)) {
  const std::optional<XcbDesktop> desktop = XcbDesktop::Open();
  if (!desktop) return;
  root_ = desktop->Root();
  clientList_ = desktop->Atom("_NET_CLIENT_LIST");
  // Windows that are not managed show in the children of the root alone.
  desktop->SelectRootEvents(XCB_EVENT_MASK_PROPERTY_CHANGE | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY);
  QCoreApplication::instance()->installNativeEventFilter(this);
}

XcbWindowOwners::~XcbWindowOwners() {
  if (qApp) qApp->removeNativeEventFilter(this);
}

std::vector<pid_t> XcbWindowOwners::Owners() {
  if (root_ == XCB_WINDOW_NONE) return ask_();
  // Before asking: what changes meanwhile is an event of its own.
  if (!std::exchange(isCurrent_, true)) owners_ = ask_();
  return owners_;
}

bool XcbWindowOwners::TellsOfWindows(const xcb_generic_event_t& event) const {
  switch (event.response_type & 0x7f) {
    case XCB_MAP_NOTIFY:
    case XCB_UNMAP_NOTIFY:
    case XCB_DESTROY_NOTIFY:
    case XCB_REPARENT_NOTIFY:
      return true;
    case XCB_PROPERTY_NOTIFY: {
      const auto& change = reinterpret_cast<const xcb_property_notify_event_t&>(event);
      return change.window == root_ && change.atom == clientList_;
    }
    default:
      return false;
  }
}

bool XcbWindowOwners::nativeEventFilter(const QByteArray& type, void* message, qintptr*) {
  if (type == "xcb_generic_event_t" &&
      TellsOfWindows(*static_cast<const xcb_generic_event_t*>(message))) {
    isCurrent_ = false;
  }
  return false;
}

}  // namespace vardell
