#include "platform/linux/XcbFrontApplication.h"

#include <unistd.h>
#include <QCoreApplication>
#include <QTimer>

#include <algorithm>
#include <utility>

namespace vardell {

namespace {

constexpr std::uint32_t kMaxWindowStates = 64;

}  // namespace

XcbFrontApplication::XcbFrontApplication(QObject* parent)
    : QObject(parent), desktop_(XcbDesktop::Open()) {
  if (desktop_) activeWindowAtom_ = desktop_->Atom("_NET_ACTIVE_WINDOW");
}

XcbFrontApplication::~XcbFrontApplication() {
  if (QCoreApplication* app = QCoreApplication::instance()) app->removeNativeEventFilter(this);
}

xcb_window_t XcbFrontApplication::ActiveWindow() const {
  const auto active = desktop_->Property(desktop_->Root(), activeWindowAtom_, XCB_ATOM_WINDOW, 1);
  return active.empty() ? static_cast<xcb_window_t>(XCB_WINDOW_NONE) : active[0];
}

std::int32_t XcbFrontApplication::FrontPid() {
  return desktop_ ? desktop_->WindowPid(ActiveWindow()) : 0;
}

bool XcbFrontApplication::IsDisplayCaptured() {
  if (!desktop_) return false;
  const xcb_window_t active = ActiveWindow();
  if (active == XCB_WINDOW_NONE || desktop_->WindowPid(active) == getpid()) return false;
  const auto states =
      desktop_->Property(active, desktop_->Atom("_NET_WM_STATE"), XCB_ATOM_ATOM, kMaxWindowStates);
  return std::find(states.begin(), states.end(), desktop_->Atom("_NET_WM_STATE_FULLSCREEN")) !=
         states.end();
}

void XcbFrontApplication::Watch(std::function<void()> switched) {
  switched_ = std::move(switched);
  if (!desktop_) return;
  desktop_->SelectRootEvents(XCB_EVENT_MASK_PROPERTY_CHANGE);
  toldPid_ = FrontPid();
  QCoreApplication::instance()->installNativeEventFilter(this);
}

bool XcbFrontApplication::nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) {
  if (eventType != "xcb_generic_event_t") return false;
  const auto* event = static_cast<const xcb_generic_event_t*>(message);
  if ((event->response_type & 0x7f) != XCB_PROPERTY_NOTIFY) return false;
  const auto* change = reinterpret_cast<const xcb_property_notify_event_t*>(event);
  if (change->window == desktop_->Root() && change->atom == activeWindowAtom_)
    ActiveWindowChanged();
  return false;
}

void XcbFrontApplication::ActiveWindowChanged() {
  if (std::exchange(checkScheduled_, true)) return;
  QTimer::singleShot(0, this, [this] {
    checkScheduled_ = false;
    const std::int32_t pid = FrontPid();
    if (std::exchange(toldPid_, pid) != pid && switched_) switched_();
  });
}

}  // namespace vardell
