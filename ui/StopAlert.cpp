#include "ui/StopAlert.h"

#include <QCloseEvent>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMessageBox>
#include <QPushButton>
#include <chrono>
#include <utility>

#include "Common Sources/Localization.h"
#include "Common Sources/TestHooks.h"
#include "ui/KeptWindow.h"
#include "ui/MessagePanel.h"

namespace vardell {

namespace {

constexpr int kAutoHideSeconds = 60;
constexpr int kBeepSeconds = 3;
constexpr std::chrono::seconds kKeysIgnored(1);  // of the person's time, whatever a second is here
constexpr int kLongWord = 28;                    // letters, for which a line always has room
constexpr qreal kTextScale = 1.4;                // of the sentence
constexpr qreal kDetailScale = 1.15;             // of the rest

QFont Scaled(QFont font, qreal factor) {
  font.setPointSizeF(font.pointSizeF() > 0 ? font.pointSizeF() * factor : 10 * factor);
  return font;
}

// Words longer than a line may be broken anywhere.
QString Breakable(const QString& text) {
  QString broken;
  int letters = 0;
  for (const QChar letter : text) {
    letters = letter.isSpace() ? 0 : letters + 1;
    if (letters > kLongWord && !letter.isLowSurrogate() && !letter.isMark())
      broken += QChar(0x200b);  // a place to break without width
    broken += letter;
  }
  return broken;
}

void Arrange(QMessageBox& box) {
  const QFont plain = box.font();
  box.setFont(Scaled(plain, kDetailScale));
  // Qt's names for the two lines of a message box; without them it looks plainer, no more.
  if (auto* label = box.findChild<QWidget*>(QStringLiteral("qt_msgbox_label"))) {
    QFont font = Scaled(plain, kTextScale);
    font.setBold(true);
    label->setFont(font);
    label->setMinimumWidth(QFontMetrics(font).horizontalAdvance(QString(kLongWord, u'W')));
    label->setContentsMargins(8, 12, 16, 4);
  }
  if (auto* detail = box.findChild<QWidget*>(QStringLiteral("qt_msgbox_informativelabel")))
    detail->setContentsMargins(8, 4, 16, 12);
}

class StopAlertBox : public Kept<QMessageBox> {
 public:
  explicit StopAlertBox(const QString& text) {
    setWindowTitle(QStringLiteral("Vardell"));
    setWindowFlags(Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                   Qt::WindowCloseButtonHint | Qt::WindowStaysOnTopHint);
    setModal(false);  // a modal window takes the keyboard when it appears
    setAttribute(Qt::WA_ShowWithoutActivating);
    setIcon(QMessageBox::Critical);
    setTextFormat(Qt::PlainText);
    setText(Breakable(text));
    setInformativeText(Localized("Click to continue"));
    setAccessibleName(text);
    QPushButton* ok = addButton(QMessageBox::Ok);
    ok->setText(Localized("OK"));
    setDefaultButton(ok);
    Arrange(*this);
    qApp->installEventFilter(this);
    QTimer::singleShot(kKeysIgnored, this, [this] {
      if (!isActiveWindow()) TakeKeyboard();
    });
    sinceActive_.start();
  }

 protected:
  void changeEvent(QEvent* event) override {
    if (event->type() == QEvent::ActivationChange && isActiveWindow()) sinceActive_.start();
    if (isMinimized()) showNormal();
    QMessageBox::changeEvent(event);
  }
  void closeEvent(QCloseEvent* event) override {
    if (event->spontaneous() && !HeedsKeys())
      event->ignore();
    else
      QMessageBox::closeEvent(event);
  }
  // On the desktop that is shown now, and beneath a panel.
  void Return() override {
    showNormal();
    if (MessagePanel* panel = MessagePanel::Topmost()) panel->raise();
  }
  bool eventFilter(QObject* object, QEvent* event) override {
    const bool isKey = event->type() == QEvent::KeyPress || event->type() == QEvent::Shortcut;
    const auto* widget = qobject_cast<QWidget*>(object);
    if (!isKey || !widget || widget->window() != this) return false;
    const bool repeats =
        event->type() == QEvent::KeyPress && static_cast<QKeyEvent*>(event)->isAutoRepeat();
    return repeats || !HeedsKeys();
  }

 private:
  bool HeedsKeys() const {
    return sinceActive_.hasExpired(std::chrono::milliseconds(kKeysIgnored).count());
  }

  // By now it was seen beside what is being done; a full-screen window gives way to it only so.
  void TakeKeyboard() {
    raise();
    activateWindow();
  }

  QElapsedTimer sinceActive_;
};

}  // namespace

AlertTimers::AlertTimers(const AlertOptions& options, std::function<void()> hide,
                         std::function<void()> beep) {
  for (QTimer* timer : {&hide_, &beep_}) timer->setTimerType(Qt::PreciseTimer);
  hide_.setSingleShot(true);
  QObject::connect(&hide_, &QTimer::timeout, [hide = std::move(hide)] { hide(); });
  QObject::connect(&beep_, &QTimer::timeout, [beep = std::move(beep)] { beep(); });
  if (options.autoHideAlerts) hide_.start(kAutoHideSeconds * SecondLength());
  if (options.playAlertsSound) beep_.start(kBeepSeconds * SecondLength());
}

void ShowStopAlert(const QString& text, const AlertOptions& options) {
  StopAlertBox box(text);
  const AlertTimers timers(options, [&box] {
    if (QPushButton* button = box.defaultButton()) button->click();
  });
  QEventLoop loop;
  QObject::connect(&box, &QDialog::finished, &loop, &QEventLoop::quit);
  box.show();
  loop.exec();
}

}  // namespace vardell
