#include "platform/linux/XcbScreens.h"

#include <QGuiApplication>
#include <QPainter>
#include <QRasterWindow>
#include <QScreen>

namespace vardell {

namespace {

constexpr int kGrabRetryMs = 100;

class BlackWindow : public QRasterWindow {
 public:
  explicit BlackWindow(QScreen* screen) {
    setScreen(screen);
    setFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::X11BypassWindowManagerHint |
             Qt::WindowDoesNotAcceptFocus);
    setGeometry(screen->geometry());
  }

 protected:
  void paintEvent(QPaintEvent*) override {
    QPainter painter(this);
    painter.fillRect(QRect(QPoint(), size()), Qt::black);
  }
};

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

}  // namespace

XcbScreens::XcbScreens(QObject* parent) : QObject(parent), desktop_(XcbDesktop::Open()) {
  if (!desktop_) return;
  retry_.setInterval(kGrabRetryMs);
  connect(&retry_, &QTimer::timeout, this, [this] { TakeInput(); });
  const auto screensChanged = [this] {
    if (capturing_) CoverScreens();
  };
  const auto follow = [this, screensChanged](QScreen* screen) {
    connect(screen, &QScreen::geometryChanged, this, screensChanged);
  };
  for (QScreen* screen : QGuiApplication::screens()) follow(screen);
  connect(qGuiApp, &QGuiApplication::screenAdded, this, follow);
  connect(qGuiApp, &QGuiApplication::screenAdded, this, screensChanged);
  connect(qGuiApp, &QGuiApplication::screenRemoved, this, screensChanged);
  connect(qGuiApp, &QGuiApplication::primaryScreenChanged, this, screensChanged);
}

XcbScreens::~XcbScreens() = default;

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

void XcbScreens::CoverScreens() {
  covers_.clear();
  for (QScreen* screen : QGuiApplication::screens()) {
    if (screen == QGuiApplication::primaryScreen()) continue;
    covers_.push_back(std::make_unique<BlackWindow>(screen));
    covers_.back()->show();
  }
}

void XcbScreens::SetSystemUIMode(SystemUIMode mode, int, QWindow* window) {
  if (!desktop_) return;
  inputWindow_ = mode == SystemUIMode::Normal ? nullptr : window;
  if (inputWindow_) {
    retry_.start();
    TakeInput();
    return;
  }
  retry_.stop();
  xcb_ungrab_keyboard(desktop_->Connection(), XCB_CURRENT_TIME);
  xcb_ungrab_pointer(desktop_->Connection(), XCB_CURRENT_TIME);
  xcb_flush(desktop_->Connection());
}

// Refused while the window is not on the screen yet, and while another program has a menu open.
void XcbScreens::TakeInput() {
  const bool done =
      !inputWindow_ || (inputWindow_->isExposed() &&
                        GrabInput(*desktop_, static_cast<xcb_window_t>(inputWindow_->winId())));
  if (done) retry_.stop();
}

}  // namespace vardell
