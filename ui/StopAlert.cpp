#include "ui/StopAlert.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>
#include <chrono>
#include <utility>

#include "Common Sources/Localization.h"
#include "Common Sources/TestHooks.h"

namespace vardell {

namespace {

constexpr int kAutoHideSeconds = 60;
constexpr int kBeepSeconds = 3;
constexpr int kTextColumns = 44;      // the width at which the sentence wraps, in letters
constexpr qreal kTextScale = 1.4;     // of the sentence
constexpr qreal kDetailScale = 1.15;  // of the rest

QFont Scaled(QFont font, qreal factor) {
  font.setPointSizeF(font.pointSizeF() > 0 ? font.pointSizeF() * factor : 10 * factor);
  return font;
}

void Arrange(QMessageBox& box) {
  const QFont plain = box.font();
  box.setFont(Scaled(plain, kDetailScale));
  // Qt's names for the two lines of a message box; without them it looks plainer, no more.
  if (auto* label = box.findChild<QWidget*>(QStringLiteral("qt_msgbox_label"))) {
    QFont font = Scaled(plain, kTextScale);
    font.setBold(true);
    label->setFont(font);
    label->setMinimumWidth(QFontMetrics(font).averageCharWidth() * kTextColumns);
    label->setContentsMargins(8, 12, 16, 4);
  }
  if (auto* detail = box.findChild<QWidget*>(QStringLiteral("qt_msgbox_informativelabel")))
    detail->setContentsMargins(8, 4, 16, 12);
}

}  // namespace

AlertTimers::AlertTimers(const AlertOptions& options, std::function<void()> hide) {
  for (QTimer* timer : {&hide_, &beep_}) timer->setTimerType(Qt::PreciseTimer);
  hide_.setSingleShot(true);
  QObject::connect(&hide_, &QTimer::timeout, [hide = std::move(hide)] { hide(); });
  QObject::connect(&beep_, &QTimer::timeout, [] { QApplication::beep(); });
  if (options.autoHideAlerts) hide_.start(kAutoHideSeconds * SecondLength());
  if (options.playAlertsSound) beep_.start(kBeepSeconds * SecondLength());
}

void ShowStopAlert(const QString& text, const AlertOptions& options) {
  QMessageBox box;
  box.setWindowTitle(QStringLiteral("Vardell"));
  box.setWindowFlag(Qt::WindowStaysOnTopHint);
  box.setIcon(QMessageBox::Critical);
  box.setTextFormat(Qt::PlainText);
  box.setText(text);
  box.setInformativeText(Localized("Click to continue"));
  box.setDefaultButton(box.addButton(QMessageBox::Ok));
  Arrange(box);
  const AlertTimers timers(options, [&box] {
    if (QPushButton* button = box.defaultButton()) button->click();
  });
  box.exec();
}

}  // namespace vardell
