#include "ui/MessagePanel.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QApplication>
#include <QMouseEvent>
#include <QTextLayout>
#include <algorithm>
#include <utility>
#include <vector>

#include "Common Sources/Localization.h"

namespace vardell {

namespace {

constexpr int kSmallestFont = 8;  // pixels, as the next
constexpr int kSmallestNominal = 20;
constexpr int kLinesOfPanel = 18;  // of the nominal size
constexpr int kMarginShare = 10;   // of the width, on each side
constexpr int kMaxText = 1500;     // letters; what is longer cannot be read in a minute
constexpr int kBalancingSteps = 10;

// Breaks the text into lines of that width and gives the size that they need.
QSizeF Break(QTextLayout& layout, qreal width) {
  QSizeF needed;
  layout.beginLayout();
  for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
    line.setLineWidth(width);
    line.setPosition({0, needed.height()});
    needed = {std::max(needed.width(), line.naturalTextWidth()), needed.height() + line.height()};
  }
  layout.endLayout();
  return needed;
}

bool Fits(QTextLayout& layout, const QSizeF& room) {
  const QSizeF needed = Break(layout, room.width());
  return needed.width() <= room.width() && needed.height() <= room.height();
}

// Sets and gives the largest size up to `font`'s that fits, 0 where none does. Words are broken
// only where that saves them from being much smaller.
int FitFont(QTextLayout& layout, QFont font, const QSizeF& room) {
  const int largest = font.pixelSize();
  for (const auto& [wrap, smallest] :
       {std::pair{QTextOption::WordWrap, largest / 2},
        std::pair{QTextOption::WrapAtWordBoundaryOrAnywhere, kSmallestFont}}) {
    QTextOption option(Qt::AlignHCenter);
    option.setWrapMode(wrap);
    layout.setTextOption(option);
    for (int size = largest; size >= smallest; --size) {
      font.setPixelSize(size);
      layout.setFont(font);
      if (Fits(layout, room)) return size;
    }
  }
  return 0;
}

// Lines of about one length: the narrowest measure that needs no further line.
qreal Balance(QTextLayout& layout, qreal width) {
  const int lines = layout.lineCount();
  qreal tooNarrow = 0;
  for (int i = 0; i < kBalancingSteps; ++i) {
    const qreal tried = (tooNarrow + width) / 2;
    const bool fits = Break(layout, tried).width() <= tried && layout.lineCount() <= lines;
    (fits ? width : tooNarrow) = tried;
  }
  (void)Break(layout, width);
  return width;
}

QString Shortened(const QString& text, qsizetype length) {
  return text.size() > length ? text.left(length) + QChar(0x2026) : text;
}

// Gives the size of the letters, in pixels.
int DrawTextBox(QPainter& painter, const QRectF& box, const QFont& font, const QString& text) {
  QTextLayout layout({}, font);
  int size = 0;
  for (qsizetype length = kMaxText; size == 0 && length > 0; length -= kMaxText / 10) {
    layout.setText(Shortened(text, length).replace(QLatin1Char('\n'), QChar::LineSeparator));
    size = FitFont(layout, font, box.size());
  }
  const qreal measure = Balance(layout, box.width());
  layout.draw(&painter, {box.left() + (box.width() - measure) / 2, box.top()});
  return std::max(size, kSmallestFont);
}

QAccessibleInterface* MakeAccessible(const QString&, QObject* object) {
  auto* panel = qobject_cast<MessagePanel*>(object);
  return panel ? new QAccessibleWidget(panel, QAccessible::AlertMessage) : nullptr;
}

}  // namespace

PanelBoxes PanelBoxesOf(const QRect& panel) {
  PanelBoxes boxes;
  boxes.left = static_cast<std::int16_t>(panel.x());
  boxes.right = static_cast<std::int16_t>(panel.x() + panel.width());
  boxes.bottom = static_cast<std::int16_t>(panel.y() + panel.height());
  boxes.messageTop = static_cast<std::int16_t>(boxes.bottom / 3);
  boxes.hintTop = static_cast<std::int16_t>(boxes.bottom * 2 / 3);
  return boxes;
}

void DrawMessagePanel(QPainter& painter, const QRect& panel, const QString& message,
                      const QColor& colour) {
  const PanelBoxes boxes = PanelBoxesOf(panel);
  const int margin = (boxes.right - boxes.left) / kMarginShare;
  const int width = boxes.right - boxes.left - 2 * margin;
  QFont font = QApplication::font();
  font.setBold(true);
  font.setPixelSize(std::max(kSmallestNominal, boxes.bottom / kLinesOfPanel));
  painter.fillRect(panel, Qt::black);
  painter.setPen(colour);
  // The gap keeps a sentence that fills its room away from the hint.
  const QRectF room(boxes.left + margin, boxes.messageTop, width,
                    boxes.hintTop - boxes.messageTop - font.pixelSize() / 2);
  font.setPixelSize(DrawTextBox(painter, room, font, message));
  const QRectF rest(boxes.left + margin, boxes.hintTop, width, boxes.bottom - boxes.hintTop);
  (void)DrawTextBox(painter, rest, font, Localized("Click to continue"));
}

MessagePanel::MessagePanel(PanelUse use, QRgb colour, std::function<QString()> text,
                           Screens& screens, MessagePanel* below)
    : use_(use), colour_(colour), text_(std::move(text)), screens_(screens), below_(below) {
  QAccessible::installFactory(MakeAccessible);
  setWindowTitle(QStringLiteral("Vardell"));
  setWindowFlags(Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                 Qt::X11BypassWindowManagerHint);
  // Over alerts that are up: the last modal window is the one that gets the input.
  setWindowModality(Qt::ApplicationModal);
  setAttribute(Qt::WA_OpaquePaintEvent);
  setCursor(Qt::ArrowCursor);
  setAccessibleDescription(Localized("Click to continue"));
  Refresh();
  Follow();
}

void MessagePanel::TakeScreens() {
  (void)winId();  // made, not shown
  screens_.SetSystemUIMode(SystemUIMode::ContentHidden, kUIOptionDisableProcessSwitch,
                           windowHandle());
  screens_.CaptureSecondaryDisplays();
}

void MessagePanel::Appear() {
  // A menu of this program would give the input away when it closes.
  if (QWidget* popup = QApplication::activePopupWidget()) popup->close();
  BeginScreenFade(true);
  show();
  raise();
  SizeFadeWindow();
  QAccessibleEvent alert(this, QAccessible::Alert);
  QAccessible::updateAccessibility(&alert);
}

void MessagePanel::Return() {
  TakeScreens();
  show();
  raise();
}

void MessagePanel::RunModally() {
  loop_.exec();
}

void MessagePanel::LeaveUIMode() {
  if (below_) {
    below_->ReturnIfLost();
    below_->TakeScreens();
    below_->raise();
  } else {
    screens_.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
  }
}

void MessagePanel::LeaveDisplays(Screens& screens, const MessagePanel* below) {
  if (!below) screens.ReleaseDisplays();
}

void MessagePanel::Dismiss() {
  loop_.quit();
}

void MessagePanel::Refresh() {
  QString text = text_();
  if (text == shown_) return;
  shown_ = std::move(text);
  setAccessibleName(shown_);
  update();
}

MessagePanel* MessagePanel::Topmost() {
  std::vector<MessagePanel*> up;
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (auto* panel = qobject_cast<MessagePanel*>(widget)) up.push_back(panel);
  }
  const auto isCovered = [&](const MessagePanel* panel) {
    return std::any_of(up.begin(), up.end(),
                       [&](const MessagePanel* other) { return other->Below() == panel; });
  };
  const auto it = std::find_if_not(up.begin(), up.end(), isCovered);
  return it == up.end() ? nullptr : *it;
}

void MessagePanel::mousePressEvent(QMouseEvent*) {
  Dismiss();
}

void MessagePanel::closeEvent(QCloseEvent*) {
  Dismiss();
}

void MessagePanel::paintEvent(QPaintEvent*) {
  Refresh();
  QPainter painter(this);
  DrawMessagePanel(painter, rect(), shown_, colour_);
}

}  // namespace vardell
