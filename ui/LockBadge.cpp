#include "ui/LockBadge.h"

#include <QBitmap>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <algorithm>
#include <utility>

#include "Common Sources/Localization.h"
#include "Common Sources/TestHooks.h"
#include "ui/MessagePanel.h"

namespace vardell {

namespace {

constexpr QSize kBadgeSize(16, 20);
constexpr double kCountdownSeconds = 3.0;
constexpr double kBlinkSeconds = 0.5;

int Milliseconds(double seconds) {
  return static_cast<int>(seconds * static_cast<double>(SecondLength().count()));
}

// The picture is drawn upside up into a square of 48 whose lower left corner alone lies within the
// badge: its left edge is at 4, its lower edge at 17. What would be seen of a padlock there is all
// of it that is drawn.
QPainterPath Body() {
  QPainterPath path;
  path.addRoundedRect(QRectF(5, 8, 10, 8), 1.5, 1.5);
  return path;
}

QPainterPath Shackle() {
  QPainterPath middle;
  middle.moveTo(6.75, 8.5);
  middle.lineTo(6.75, 5);
  middle.arcTo(QRectF(6.75, 1.75, 6.5, 6.5), 180, -180);
  middle.lineTo(13.25, 8.5);
  QPainterPathStroker stroker;
  stroker.setWidth(2);
  stroker.setCapStyle(Qt::FlatCap);
  return stroker.createStroke(middle);
}

QPainterPath Outline() {
  QPainterPathStroker stroker;
  stroker.setWidth(2);
  const QPainterPath padlock = Body().united(Shackle());
  return padlock.united(stroker.createStroke(padlock));
}

QBitmap OutlineMask() {
  QBitmap mask(kBadgeSize);
  mask.clear();
  QPainter(&mask).fillPath(Outline(), Qt::color1);
  return mask;
}

// `cut`: to its outline, so that nothing shines through what lies within.
void DrawPadlock(QPainter& painter, bool cut) {
  if (cut) painter.fillRect(QRect(QPoint(), kBadgeSize), QColor(230, 230, 230));
  painter.setRenderHint(QPainter::Antialiasing);
  painter.fillPath(Outline(), QColor(255, 255, 255, 210));  // readable on dark and on light
  painter.fillPath(Shackle(), QColor(70, 74, 82));
  painter.fillPath(Body(), QColor(214, 144, 20));
  QPainterPath keyhole;
  keyhole.addEllipse(QPointF(10, 11.4), 1.3, 1.3);
  keyhole.addRect(QRectF(9.4, 11.8, 1.2, 2.7));
  painter.fillPath(keyhole, QColor(60, 40, 0));
}

}  // namespace

LockBadge::LockBadge(Screens& screens, LockRequest lockScreen)
    : screens_(screens), lockScreen_(std::move(lockScreen)) {
  setWindowTitle(Localized("Lock computer"));
  setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                 Qt::X11BypassWindowManagerHint | Qt::WindowDoesNotAcceptFocus);
  setAttribute(Qt::WA_ShowWithoutActivating);
  setAttribute(Qt::WA_TranslucentBackground);
  Follow();
  for (QTimer* timer : {&blink_, &countdown_}) timer->setTimerType(Qt::PreciseTimer);
  countdown_.setSingleShot(true);
  connect(&blink_, &QTimer::timeout, this, [this] { Blink(); });
  connect(&countdown_, &QTimer::timeout, this, [this] { Lock(); });
}

void LockBadge::ShowWindow() {
  hides_ = std::max(0, hides_ - 1);
  if (hides_ > 0) return;
  Return();
}

// Beneath a panel, which the window is made above.
void LockBadge::Return() {
  Shape();
  Follow();
  show();
  MessagePanel* panel = MessagePanel::Topmost();
  panel ? panel->raise() : raise();
}

void LockBadge::HideWindow() {
  ++hides_;
  hide();
}

void LockBadge::Toggle() {
  badgeVisible_ = !badgeVisible_;
  Redraw();
}

void LockBadge::paintEvent(QPaintEvent*) {
  if (!MessagePanel::Topmost()) raise();
  if (!badgeVisible_) return;
  QPainter painter(this);
  DrawPadlock(painter, !screens_.IsComposited());
}

void LockBadge::mousePressEvent(QMouseEvent* event) {
  event->ignore();
}

void LockBadge::mouseDoubleClickEvent(QMouseEvent*) {
  if (lockPending_ || std::exchange(lockArmed_, true)) return;
  Redraw();
  countdown_.start(Milliseconds(kCountdownSeconds));
  blink_.start(Milliseconds(kBlinkSeconds));
}

QRect LockBadge::Place() const {
  return {screens_.MainDisplayBounds().topLeft(), kBadgeSize};
}

// Without a compositor nothing is translucent: the window has the padlock's shape then, and where
// that is blinked off none at all.
void LockBadge::Shape() {
  if (screens_.IsComposited())
    clearMask();
  else if (badgeVisible_)
    setMask(OutlineMask());
  else
    setMask(QRegion(-1, -1, 1, 1));
}

void LockBadge::Redraw() {
  Shape();
  update();
}

void LockBadge::Blink() {
  badgeVisible_ = !badgeVisible_;
  if (lockPending_) {
    blink_.stop();
    badgeVisible_ = true;
    lockPending_ = false;
  }
  Redraw();
}

void LockBadge::Lock() {
  lockPending_ = true;
  lockScreen_([badge = QPointer<LockBadge>(this)] {
    if (badge) badge->lockArmed_ = false;
  });
}

std::unique_ptr<LockBadge> CreateLockBadge(Screens& screens, LockRequest lockScreen) {
  auto badge = std::make_unique<LockBadge>(screens, std::move(lockScreen));
  badge->ShowWindow();
  return badge;
}

void ShowLockBadge(LockBadge* badge) {
  if (badge) badge->ShowWindow();
}

void HideLockBadge(LockBadge* badge) {
  if (badge) badge->HideWindow();
}

void ToggleLockBadge(LockBadge& badge) {
  badge.Toggle();
}

}  // namespace vardell
