#include "ui/FullScreenMessage.h"

#include <QApplication>
#include <QEventLoop>
#include <QMouseEvent>
#include <QPainter>
#include <QPointer>
#include <QWidget>
#include <algorithm>
#include <utility>
#include <vector>

#include "Common Sources/Localization.h"
#include "ui/StopAlert.h"

namespace vardell {

namespace {

constexpr QRgb kTextColour = qRgb(255, 51, 51);
constexpr int kTextFlags = Qt::AlignHCenter | Qt::AlignTop | Qt::TextWordWrap;

// `text` wrapped and centred within `box`, in the largest of the sizes up to `font`'s that fits.
void DrawTextBox(QPainter& painter, const QRect& box, QFont font, const QString& text) {
  constexpr int kSmallest = 10;
  const auto fits = [&] {
    const QRect needed = QFontMetrics(font).boundingRect(box, kTextFlags, text);
    return needed.height() <= box.height() && needed.width() <= box.width();
  };
  while (font.pixelSize() > kSmallest && !fits()) font.setPixelSize(font.pixelSize() - 1);
  painter.setFont(font);
  painter.drawText(box, kTextFlags, text);
}

class MessageWindow : public QWidget {
 public:
  MessageWindow(QString text, Screens& screens, MessageWindow* below)
      : text_(std::move(text)), screens_(screens), below_(below) {
    setWindowTitle(QStringLiteral("Vardell"));
    setWindowFlags(Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                   Qt::X11BypassWindowManagerHint);
    // Over alerts that are up: the last modal window is the one that gets the input.
    setWindowModality(Qt::ApplicationModal);
    setAttribute(Qt::WA_OpaquePaintEvent);
    FollowScreen();
    connect(qGuiApp, &QGuiApplication::primaryScreenChanged, this, [this] { FollowScreen(); });
  }

  void RunModally() {
    show();
    TakeScreens();
    loop_.exec();
    hide();
  }

  void TakeScreens() {
    screens_.SetSystemUIMode(SystemUIMode::ContentHidden, kUIOptionDisableProcessSwitch,
                             windowHandle());
    screens_.CaptureSecondaryDisplays();
    raise();
  }

  void Dismiss() { loop_.quit(); }
  MessageWindow* Below() const { return below_; }

 protected:
  void mousePressEvent(QMouseEvent*) override { Dismiss(); }
  void closeEvent(QCloseEvent*) override { Dismiss(); }

  void paintEvent(QPaintEvent*) override {
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    painter.setPen(QColor(kTextColour));
    const int margin = width() / 10;
    const int messageTop = height() / 3;
    const int hintTop = height() * 2 / 3;
    QFont font = this->font();
    font.setPixelSize(std::max(18, height() / 28));
    font.setBold(true);
    DrawTextBox(painter, QRect(margin, messageTop, width() - 2 * margin, hintTop - messageTop),
                font, text_);
    DrawTextBox(painter, QRect(margin, hintTop, width() - 2 * margin, height() - hintTop), font,
                Localized("Click to continue"));
  }

 private:
  void FollowScreen() {
    const QRect bounds = screens_.MainDisplayBounds();
    if (!bounds.isEmpty()) setGeometry(bounds);
  }

  QString text_;
  Screens& screens_;
  QPointer<MessageWindow> below_;  // the message that this one stands over
  QEventLoop loop_;
};

// The message that is up and over which no other stands.
MessageWindow* TopmostMessage() {
  std::vector<MessageWindow*> up;
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (auto* message = dynamic_cast<MessageWindow*>(widget)) up.push_back(message);
  }
  const auto isCovered = [&](const MessageWindow* message) {
    return std::any_of(up.begin(), up.end(),
                       [&](const MessageWindow* other) { return other->Below() == message; });
  };
  const auto it = std::find_if_not(up.begin(), up.end(), isCovered);
  return it == up.end() ? nullptr : *it;
}

}  // namespace

void ShowFullScreenMessage(const QString& key, bool withTimers, const MessageHost& host) {
  MessageWindow* below = TopmostMessage();
  if (host.suspendTick) host.suspendTick();
  {
    MessageWindow window(Localized(key.toUtf8().constData()), host.screens, below);
    const AlertTimers timers(withTimers ? host.options : AlertOptions{},
                             [&window] { window.Dismiss(); });
    window.RunModally();
  }
  if (below) {
    below->TakeScreens();
  } else {
    host.screens.SetSystemUIMode(SystemUIMode::Normal, 0, nullptr);
    host.screens.ReleaseDisplays();
  }
  if (host.resumeTick) host.resumeTick();
}

void DismissFullScreenMessage() {
  if (MessageWindow* window = TopmostMessage()) window->Dismiss();
}

void LockScreen(const MessageHost& host) {
  ShowFullScreenMessage(QStringLiteral("This computer is locked"), false, host);
}

}  // namespace vardell
