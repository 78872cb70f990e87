#include "ui/StatusItem.h"

#include <QAction>
#include <QCursor>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QPalette>
#include <QPixmap>
#include <QPointer>
#include <algorithm>
#include <limits>

#include "Common Sources/DurationString.h"
#include "Common Sources/Localization.h"
#include "Common Sources/TestHooks.h"
#include "limits/SizeString.h"
#include "ui/Images.h"
#include "ui/MessagePanel.h"

namespace vardell {

namespace {

constexpr std::int32_t kSessionPid = -1;
constexpr int kLinesBelow = 3;  // the disk, the separator, "Lock computer"
constexpr double kLastMinute = 0.6;
constexpr int kNameWidth = 44;  // average characters

QString DurationText(double credit) {
  constexpr double kMost = std::numeric_limits<std::int32_t>::max();
  const double value = credit >= -kMost ? std::min(credit, kMost) : -kMost;
  if (value > kLastMinute)
    return CopyDurationString(static_cast<std::int32_t>(value), kDurationMinutes);
  const auto hundredths = static_cast<std::int64_t>(value * 100);
  return CopyDurationString(static_cast<std::int32_t>(hundredths % 60), kDurationSeconds);
}

// Marks of direction would turn the rest of the line around, a tab would begin a second column.
bool IsDisturbing(QChar c) {
  return (c >= u'\u202A' && c <= u'\u202E') || (c >= u'\u2066' && c <= u'\u2069') ||
         (c.category() == QChar::Other_Control && !c.isSpace());
}

QString NameText(QString name, const QFont& font) {
  name.removeIf(IsDisturbing);
  const QFontMetrics metrics(font);
  return metrics.elidedText(name.simplified(), Qt::ElideMiddle,
                            kNameWidth * metrics.averageCharWidth());
}

// On the bus "_" marks the letter of a shortcut. Qt makes the first "&" such a mark, and hands on
// every other as it stands; so the first is one of ours, before a letter that does no harm.
QString BusLabel(QString text) {
  text.replace(u'_', QStringLiteral("__"));
  return text.contains(u'&') ? u'&' + text : text;
}

QString QtLabel(QString text) {
  return text.replace(u'&', QStringLiteral("&&"));
}

// The lines are disabled because they do nothing, and are there to be read all the same.
QPalette ReadablePalette(QPalette palette) {
  const auto mix = [](int ink, int paper) { return (3 * ink + paper) / 4; };
  const QColor ink = palette.color(QPalette::Active, QPalette::Text);
  const QColor paper = palette.color(QPalette::Active, QPalette::Base);
  const QColor text(mix(ink.red(), paper.red()), mix(ink.green(), paper.green()),
                    mix(ink.blue(), paper.blue()));
  for (const QPalette::ColorRole role :
       {QPalette::Text, QPalette::WindowText, QPalette::ButtonText})
    palette.setColor(QPalette::Disabled, role, text);
  return palette;
}

QIcon FileIcon(const QString& path, const QIcon& otherwise) {
  const QPixmap pixmap(ProductPath(path));
  return pixmap.isNull() ? otherwise : QIcon(pixmap);
}

}  // namespace

StatusItem::StatusItem(const StatusItemHost& host) : listener_(host) {
  menu_.setTitle(QStringLiteral("Vardell"));
  menu_.setAccessibleName(Localized("Time left"));
  placeholder_ = InsertLine(0, Localized("No app watch"));
  disk_ = InsertLine(1, Localized("No disk watch"));
  menu_.addSeparator();
  QAction* lock = menu_.addAction(QString());
  SetText(*lock, Localized("Lock computer"));
  QObject::connect(lock, &QAction::triggered, &listener_, [this] { listener_.lockComputer(); });
  QObject::connect(&menu_, &QMenu::aboutToShow, &listener_, [this] {
    menu_.setPalette(ReadablePalette(QGuiApplication::palette()));
    listener_.menuNeedsUpdate();
  });
  QObject::connect(&menu_, &QMenu::aboutToHide, &listener_, [this] { SetPainter(UsualPainter()); });

  host.statusBar.WhenKnown([this, alive = QPointer(&listener_)] {
    if (!alive) return;
    known_ = true;
    if (wanted_) Appear();
  });
}

// Kept while it is hidden: a second QSystemTrayIcon for the same menu would leave the first one's
// answerer for it on the bus, and each would tell every change.
void StatusItem::Appear() {
  if (!icon_) {
    icon_ = std::make_unique<QSystemTrayIcon>();
    icon_->setToolTip(QStringLiteral("Vardell – ") + Localized("Time left"));
    icon_->setContextMenu(&menu_);
    QObject::connect(icon_.get(), &QSystemTrayIcon::activated, &listener_, [this](auto reason) {
      // The second of two quick clicks, which only gets here where the menu has gone between them.
      const bool isClick =
          reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick;
      if (isClick) OpenHere();
    });
  }
  icon_->setIcon(EyeIcon());
  icon_->show();
  SetPainter(UsualPainter());
}

// Over a panel, which has the input, nothing of it could be chosen.
void StatusItem::OpenHere() {
  if (MessagePanel::Topmost()) return;
  SetPainter(Painter::Toolkit);
  menu_.popup(QCursor::pos());
}

void StatusItem::Toggle() {
  wanted_ = !wanted_;
  if (!known_) return;
  if (wanted_) {
    Appear();
  } else {
    icon_->hide();
  }
}

void StatusItem::ToggleIcon() {
  isLock_ = !isLock_;
  if (!icon_) return;
  icon_->setIcon(isLock_ ? FileIcon(QStringLiteral("/lock.tiff"), LockIcon())
                         : FileIcon(QStringLiteral("/eye.tiff"), EyeIcon()));
}

StatusItem::Painter StatusItem::UsualPainter() {
  return menu_.platformMenu() ? Painter::Bus : Painter::Toolkit;
}

void StatusItem::SetPainter(Painter painter) {
  if (painter == painter_) return;
  painter_ = painter;
  for (QAction* action : menu_.actions()) {
    if (!action->isSeparator()) SetText(*action, action->data().toString());
  }
}

void StatusItem::SetText(QAction& action, const QString& text) const {
  action.setData(text);
  action.setText(painter_ == Painter::Bus ? BusLabel(text) : QtLabel(text));
}

QAction* StatusItem::InsertLine(int index, const QString& text) {
  auto* line = new QAction(&menu_);
  line->setEnabled(false);
  SetText(*line, text);
  menu_.insertAction(menu_.actions().value(index), line);
  return line;
}

void StatusItem::SetLine(std::int32_t pid, const QString& name, double credit) {
  QAction*& line = lines_[pid];
  if (!line) {
    const int items = static_cast<int>(menu_.actions().size());
    line = InsertLine(pid == kSessionPid ? 0 : items - kLinesBelow, QString());
  }
  SetText(*line, FormatLocalized(Localized("Status Item Credit Format"),
                                 {DurationText(credit), NameText(name, menu_.font())}));
  delete placeholder_;
  placeholder_ = nullptr;
}

void StatusItem::RemoveLine(std::int32_t pid) {
  if (const auto line = lines_.find(pid); line != lines_.end()) {
    delete line->second;
    lines_.erase(line);
  }
  if (lines_.empty()) placeholder_ = InsertLine(0, Localized("No app watch"));
}

std::unique_ptr<StatusItem> CreateStatusItem(const StatusItemHost& host) {
  return std::make_unique<StatusItem>(host);
}

void ToggleStatusItem(StatusItem& item) {
  item.Toggle();
}

void SetAppCreditLine(StatusItem& item, std::int32_t pid, const QString& name, double credit) {
  item.SetLine(pid, name, credit);
}

void RemoveAppCreditLine(StatusItem& item, std::int32_t pid) {
  item.RemoveLine(pid);
}

bool HasAppCreditLine(const StatusItem& item, std::int32_t pid) {
  return item.HasLine(pid);
}

void SetDiskLine(StatusItem& item, bool enabled, std::uint64_t limitBytes,
                 std::uint64_t usageBytes) {
  item.SetDiskText(enabled ? FormatLocalized(Localized("Disk usage"), {CopySizeString(usageBytes),
                                                                       CopySizeString(limitBytes)})
                           : Localized("No disk watch"));
}

void ToggleStatusIcon(StatusItem& item) {
  item.ToggleIcon();
}

}  // namespace vardell
