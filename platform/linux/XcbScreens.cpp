#include "platform/linux/XcbScreens.h"

#include <xcb/shape.h>
#include <QGuiApplication>
#include <QPainter>
#include <QRasterWindow>
#include <QScreen>

#include <algorithm>
#include <utility>

#include "platform/MainDisplay.h"
#include "platform/linux/XcbStacking.h"

namespace vardell {

namespace {

constexpr int kGrabRetryMs = 100;
// Held input is taken again now and then: it is lost without a word when another program hides the
// window for a moment.
constexpr int kGrabRenewalMs = 500;
constexpr int kStackPauseMs = 50;  // so that a fight over the top, or over a cover, costs little

}  // namespace

class BlackWindow : public QRasterWindow {
 public:
  explicit BlackWindow(QScreen* screen) : covered_(screen) {
    setScreen(screen);
    setFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::X11BypassWindowManagerHint |
             Qt::WindowDoesNotAcceptFocus);
    setCursor(Qt::ArrowCursor);
    Fit();
  }
  bool Covers(const QScreen* screen) const { return covered_ == screen; }
  void Fit() { setGeometry(covered_->geometry()); }

 protected:
  void paintEvent(QPaintEvent*) override {
    QPainter painter(this);
    painter.fillRect(QRect(QPoint(), size()), Qt::black);
  }

 private:
  const QScreen* covered_;  // this goes before it, with the signal that it is removed
};

namespace {

bool GrabInput(const XcbDesktop& desktop, xcb_window_t window) {
  xcb_connection_t* c = desktop.Connection();
  const auto keyboardAsked =
      xcb_grab_keyboard(c, 0, window, XCB_CURRENT_TIME, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
  const auto pointerAsked = xcb_grab_pointer(
      c, 0, window,
      XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE | XCB_EVENT_MASK_POINTER_MOTION,
      XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC, XCB_WINDOW_NONE, XCB_CURSOR_NONE, XCB_CURRENT_TIME);
  const XcbReply<xcb_grab_keyboard_reply_t> keyboard(
      xcb_grab_keyboard_reply(c, keyboardAsked, nullptr));
  const XcbReply<xcb_grab_pointer_reply_t> pointer(
      xcb_grab_pointer_reply(c, pointerAsked, nullptr));
  return keyboard && keyboard->status == XCB_GRAB_STATUS_SUCCESS && pointer &&
         pointer->status == XCB_GRAB_STATUS_SUCCESS;
}

// Where another program has cut holes into the window, or made it translucent.
void ShowWhole(const XcbDesktop& desktop, xcb_window_t window) {
  xcb_connection_t* c = desktop.Connection();
  const xcb_query_extension_reply_t* shape = xcb_get_extension_data(c, &xcb_shape_id);
  if (shape && shape->present) {
    for (const xcb_shape_kind_t kind :
         {XCB_SHAPE_SK_BOUNDING, XCB_SHAPE_SK_CLIP, XCB_SHAPE_SK_INPUT})
      xcb_shape_mask(c, XCB_SHAPE_SO_SET, kind, window, 0, 0, XCB_PIXMAP_NONE);
  }
  xcb_delete_property(c, window, desktop.Atom("_NET_WM_WINDOW_OPACITY"));
}

struct Touch {
  xcb_window_t window = XCB_WINDOW_NONE;
  bool hidden = false;
};

std::optional<Touch> TouchOf(const xcb_generic_event_t& event) {
  switch (event.response_type & 0x7f) {
    case XCB_UNMAP_NOTIFY:
      return Touch{reinterpret_cast<const xcb_unmap_notify_event_t&>(event).window, true};
    case XCB_DESTROY_NOTIFY:
      return Touch{reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window, true};
    case XCB_CONFIGURE_NOTIFY:
      return Touch{reinterpret_cast<const xcb_configure_notify_event_t&>(event).window, false};
    default:
      return std::nullopt;
  }
}

bool TellsOfStacking(const xcb_generic_event_t& event) {
  switch (event.response_type & 0x7f) {
    case XCB_MAP_NOTIFY:
    case XCB_UNMAP_NOTIFY:
    case XCB_CONFIGURE_NOTIFY:
    case XCB_REPARENT_NOTIFY:
    case XCB_CIRCULATE_NOTIFY:
      return true;
    default:
      return false;
  }
}

}  // namespace

XcbScreens::XcbScreens(QObject* parent) : QObject(parent), desktop_(XcbDesktop::Open()) {
  if (!desktop_) return;
  stack_.setSingleShot(true);
  connect(&grab_, &QTimer::timeout, this, [this] { TakeInput(); });
  connect(&stack_, &QTimer::timeout, this, [this] { Stack(); });
  const auto screensChanged = [this] {
    if (capturing_) CoverScreens();
  };
  WatchMainDisplay(this, screensChanged);
  connect(qGuiApp, &QGuiApplication::screenAdded, this, screensChanged);
  connect(qGuiApp, &QGuiApplication::screenRemoved, this, screensChanged);
  QCoreApplication::instance()->installNativeEventFilter(this);
}

XcbScreens::~XcbScreens() {
  if (!qApp) return;
  qApp->removeNativeEventFilter(this);
  if (taking_) desktop_->WatchChildrenOfRoot(false);
}

QRect XcbScreens::MainDisplayBounds() {
  const QScreen* primary = QGuiApplication::primaryScreen();
  return primary ? primary->geometry() : QRect();
}

bool XcbScreens::IsComposited() {
  return desktop_ && desktop_->HasSelectionOwner("_NET_WM_CM_S0");
}

void XcbScreens::CaptureSecondaryDisplays() {
  if (!desktop_) return;
  capturing_ = true;
  CoverScreens();
}

void XcbScreens::ReleaseDisplays() {
  capturing_ = false;
  covers_.clear();
}

// A cover whose screen stays is kept: nothing flashes when another one comes or goes.
void XcbScreens::CoverScreens() {
  QList<QScreen*> screens = QGuiApplication::screens();
  screens.removeOne(QGuiApplication::primaryScreen());
  const auto covers = [](QScreen* screen) {
    return [screen](const auto& cover) { return cover->Covers(screen); };
  };
  std::erase_if(covers_, [&](const auto& cover) {
    return std::none_of(screens.begin(), screens.end(),
                        [&](QScreen* screen) { return covers(screen)(cover); });
  });
  for (auto screen = screens.rbegin(); screen != screens.rend(); ++screen) {
    const auto it = std::find_if(covers_.begin(), covers_.end(), covers(*screen));
    if (it != covers_.end()) {
      (*it)->Fit();
      continue;
    }
    covers_.push_back(std::make_unique<BlackWindow>(*screen));
    covers_.back()->show();
  }
  StackSoon();
}

void XcbScreens::CoverScreensSoon() {
  QTimer::singleShot(kStackPauseMs, this, [this] {
    if (capturing_) CoverScreens();
  });
}

void XcbScreens::SetSystemUIMode(SystemUIMode mode, int, QWindow* window) {
  if (!desktop_) return;
  if (inputWindow_) inputWindow_->removeEventFilter(this);
  inputWindow_ = mode == SystemUIMode::Normal ? nullptr : window;
  holdsInput_ = false;
  const bool taking = inputWindow_ != nullptr;
  if (std::exchange(taking_, taking) != taking) desktop_->WatchChildrenOfRoot(taking);
  if (inputWindow_) {
    inputWindow_->installEventFilter(this);
    TakeInput();
    StackSoon();
    return;
  }
  grab_.stop();
  xcb_ungrab_keyboard(desktop_->Connection(), XCB_CURRENT_TIME);
  xcb_ungrab_pointer(desktop_->Connection(), XCB_CURRENT_TIME);
  xcb_flush(desktop_->Connection());
}

bool XcbScreens::HoldsInput() {
  const bool covered = !capturing_ || static_cast<qsizetype>(covers_.size()) + 1 >=
                                          QGuiApplication::screens().size();
  return inputWindow_ && inputWindow_->isExposed() && holdsInput_ && covered;
}

// Refused while the window is not on the screen yet, and while another program has a menu open.
void XcbScreens::TakeInput() {
  if (!inputWindow_) {
    grab_.stop();
    return;
  }
  holdsInput_ = inputWindow_->isExposed() &&
                GrabInput(*desktop_, static_cast<xcb_window_t>(inputWindow_->winId()));
  if (holdsInput_) {
    for (const xcb_window_t window : Windows()) ShowWhole(*desktop_, window);
    xcb_flush(desktop_->Connection());
  }
  grab_.start(holdsInput_ ? kGrabRenewalMs : kGrabRetryMs);
}

bool XcbScreens::eventFilter(QObject*, QEvent* event) {
  if (event->type() == QEvent::Expose && !holdsInput_) TakeInput();
  return false;
}

bool XcbScreens::nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) {
  if (eventType != "xcb_generic_event_t") return false;
  const auto& event = *static_cast<const xcb_generic_event_t*>(message);
  const std::optional<Touch> touch = TouchOf(event);
  // Not before Qt has taken in what has become of the window.
  if (touch && desktop_->IsOwn(touch->window)) {
    QTimer::singleShot(0, this, [this, touch = *touch] { Tell(touch.window, touch.hidden); });
  }
  if (inputWindow_ && TellsOfStacking(event)) StackSoon();
  return false;
}

// A window that this program itself has hidden or destroyed is not visible, or gone, by now.
void XcbScreens::Tell(xcb_window_t touched, bool hidden) {
  const auto isIt = [&](const QWindow& window) {
    return window.handle() && window.isVisible() && window.winId() == touched;
  };
  if (hidden && std::erase_if(covers_, [&](const auto& cover) { return isIt(*cover); }) > 0) {
    CoverScreensSoon();
    return;
  }
  for (QWindow* window : QGuiApplication::topLevelWindows()) {
    if (!isIt(*window)) continue;
    QEvent event(kWindowTouched);
    QCoreApplication::sendEvent(window, &event);
    return;
  }
}

// Those that are to be above all others.
std::vector<xcb_window_t> XcbScreens::Windows() const {
  std::vector<xcb_window_t> windows{static_cast<xcb_window_t>(inputWindow_->winId())};
  for (const auto& cover : covers_) windows.push_back(static_cast<xcb_window_t>(cover->winId()));
  return windows;
}

void XcbScreens::StackSoon() {
  if (stack_.isActive()) return;
  const bool rested = !sinceStacked_.isValid() || sinceStacked_.hasExpired(kStackPauseMs);
  stack_.start(rested ? 0 : kStackPauseMs);
}

// Shows the windows again too, and in their places, if another program has hidden or moved them.
void XcbScreens::Stack() {
  if (!inputWindow_ || !inputWindow_->isVisible()) return;
  sinceStacked_.start();
  for (const auto& cover : covers_) cover->Fit();
  const std::vector<xcb_window_t> windows = Windows();
  for (const xcb_window_t window : windows) xcb_map_window(desktop_->Connection(), window);
  RaiseAboveOthers(*desktop_, windows);
  xcb_flush(desktop_->Connection());
  if (!inputWindow_->isExposed()) holdsInput_ = false;
}

}  // namespace vardell
