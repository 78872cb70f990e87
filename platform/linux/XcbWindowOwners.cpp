#include "platform/linux/XcbWindowOwners.h"

#include <QCoreApplication>
#include <utility>

namespace vardell {

XcbWindowOwners::XcbWindowOwners(Ask ask) : ask_(std::move(ask)), desktop_(XcbDesktop::Open()) {
  if (!desktop_) return;
  clientList_ = desktop_->Atom("_NET_CLIENT_LIST");
  desktop_->SelectRootEvents(XCB_EVENT_MASK_PROPERTY_CHANGE);
  QCoreApplication::instance()->installNativeEventFilter(this);
}

XcbWindowOwners::~XcbWindowOwners() {
  if (!qApp || !desktop_) return;
  qApp->removeNativeEventFilter(this);
  Watch(false);
}

// Windows that are not managed show in the children of the root alone. One event is enough: those
// that follow it would only wake this program up.
void XcbWindowOwners::Watch(bool watch) {
  if (std::exchange(isCurrent_, watch) != watch) desktop_->WatchChildrenOfRoot(watch);
}

std::vector<pid_t> XcbWindowOwners::Owners() {
  if (!desktop_) return ask_();
  if (isCurrent_) return owners_;
  // Before asking: what changes meanwhile is an event of its own.
  Watch(true);
  owners_ = ask_();
  return owners_;
}

bool XcbWindowOwners::TellsOfWindows(const xcb_generic_event_t& event) const {
  switch (event.response_type & 0x7f) {
    case XCB_CREATE_NOTIFY:
    case XCB_MAP_NOTIFY:
    case XCB_UNMAP_NOTIFY:
    case XCB_DESTROY_NOTIFY:
    case XCB_REPARENT_NOTIFY:
    case XCB_CONFIGURE_NOTIFY:
    case XCB_GRAVITY_NOTIFY:
    case XCB_CIRCULATE_NOTIFY:
      return true;
    case XCB_PROPERTY_NOTIFY: {
      const auto& change = reinterpret_cast<const xcb_property_notify_event_t&>(event);
      return change.window == desktop_->Root() && change.atom == clientList_;
    }
    default:
      return false;
  }
}

bool XcbWindowOwners::nativeEventFilter(const QByteArray& type, void* message, qintptr*) {
  if (type == "xcb_generic_event_t" &&
      TellsOfWindows(*static_cast<const xcb_generic_event_t*>(message))) {
    Watch(false);
  }
  return false;
}

}  // namespace vardell
