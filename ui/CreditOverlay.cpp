#include "ui/CreditOverlay.h"

#include <QAccessibleWidget>
#include <QFontInfo>
#include <QGuiApplication>
#include <QPainter>
#include <QScreen>
#include <QStyle>
#include <QStyleOptionMenuItem>
#include <algorithm>

#include "Common Sources/DurationString.h"
#include "Common Sources/Localization.h"
#include "platform/Processes.h"
#include "ui/MessagePanel.h"

namespace vardell {

namespace {

constexpr std::int32_t kVisibleTicks = 4;
constexpr int kFadeMs = 300;
constexpr std::int16_t kQuotaInSeconds = -2;

constexpr int kTextTop = 3;
constexpr int kTextLeft = 10;
constexpr int kPlateMargin = 10;     // of the plate, to the left and right of the text
constexpr int kLeastNameChars = 12;  // of a long name; before fewer remain the font gets smaller
constexpr int kLeastFontPixels = 7;
constexpr int kTextFlags = Qt::AlignHCenter | Qt::AlignTop | Qt::TextSingleLine;
constexpr QRgb kTextColour = qRgb(0, 0, 255);
constexpr QRgb kPlateColour = qRgb(240, 244, 255);
// On a darker grey than this pure blue has less contrast than the 4.5 to 1 that small text needs.
constexpr int kDarkestBehindBlue = 188;

// ---- the line ---------------------------------------------------------------------------------

QString SecondsOfMinute(std::uint32_t ticks) {
  return CopyDurationString(60 - static_cast<std::int32_t>(ticks % 60), kDurationSeconds);
}

// The last of several entries of one process. The GlobalSettings entry has no process.
const WatchedApp* EntryInFront(const WatchedAppTable& watchedApps, std::int32_t frontPid) {
  if (frontPid != 0) {
    const auto it =
        std::find_if(watchedApps.rbegin(), watchedApps.rend(),
                     [&](const WatchedAppPtr& entry) { return entry->pid == frontPid; });
    if (it != watchedApps.rend()) return it->get();
  }
  return FindWatchedApp(watchedApps, QLatin1String(kLoginWindowIdentifier)).get();
}

QString QuotaText(const WatchedAppTable& watchedApps, std::int16_t state) {
  const WatchedAppPtr settings =
      FindWatchedApp(watchedApps, QLatin1String(kGlobalSettingsIdentifier));
  const QString duration = state == kQuotaInSeconds
                               ? SecondsOfMinute(settings ? settings->ticks : 0)
                               : CopyDurationString(state + 3, kDurationMinutes);
  return FormatLocalized(Localized("Disk Quota Credit format"), {duration});
}

QString CreditText(const WatchedApp& entry, const QString& name) {
  if (entry.limits.credit == kSpentCredit) return {};
  const QString duration = entry.lastMinuteUsed
                               ? SecondsOfMinute(entry.ticks)
                               : CopyDurationString(entry.limits.credit, kDurationMinutes);
  return FormatLocalized(Localized("Credit format"), {name, duration});
}

struct LineSource {
  const WatchedApp* entry;  // null: nothing in front is watched
  QString quota;            // null while the quota is kept

  LineSource(const WatchedAppTable& watchedApps, std::int32_t frontPid, std::int16_t quotaState)
      : entry(EntryInFront(watchedApps, frontPid)) {
    if (quotaState < 0) quota = QuotaText(watchedApps, quotaState);
  }
  explicit LineSource(const CreditOverlayInputs& inputs)
      : LineSource(inputs.watchedApps, inputs.frontPid(), inputs.diskQuotaState()) {}

  QString Name() const { return entry ? entry->displayName : QString(); }

  QString LineFor(const QString& name) const {
    if (!entry) return quota.isNull() ? Localized("Not watching") : quota;
    const QString credit = CreditText(*entry, name);
    return quota.isNull() ? credit : credit + QLatin1Char(' ') + quota;
  }
};

// ---- drawing ----------------------------------------------------------------------------------

QStyleOptionMenuItem MenuBarOption(const QWidget& view) {
  QStyleOptionMenuItem option;
  option.initFrom(&view);
  option.state.setFlag(QStyle::State_Enabled);
  option.menuItemType = QStyleOptionMenuItem::EmptyArea;
  option.font = view.font();
  option.fontMetrics = QFontMetrics(view.font());
  return option;
}

// What a menu bar of the style is high, or more where the text needs more.
int StripHeight(const QWidget& view) {
  QStyleOptionMenuItem option = MenuBarOption(view);
  option.menuItemType = QStyleOptionMenuItem::Normal;
  option.text = QStringLiteral("M");
  const QStyle& style = *view.style();
  const int textHeight = option.fontMetrics.height();
  const QSize item = style.sizeFromContents(
      QStyle::CT_MenuBarItem, &option,
      QSize(option.fontMetrics.horizontalAdvance(option.text), textHeight), &view);
  const int margins = style.pixelMetric(QStyle::PM_MenuBarVMargin, &option, &view) +
                      style.pixelMetric(QStyle::PM_MenuBarPanelWidth, &option, &view);
  return std::max(item.height() + 2 * margins, textHeight + 2 * kTextTop);
}

QRect Strip(const QWidget& view) {
  return {0, 0, view.width(), StripHeight(view)};
}

void DrawMenuBarBackground(QPainter& painter, const QWidget& view, const QRect& strip) {
  painter.fillRect(strip, view.palette().window());
  QStyleOptionMenuItem option = MenuBarOption(view);
  option.rect = option.menuRect = strip;
  view.style()->drawControl(QStyle::CE_MenuBarEmptyArea, &option, &painter, &view);
}

// Asked of the style by drawing: the palette need not be what it draws.
bool IsBlueReadableOnMenuBar(const QWidget& view, int height) {
  QImage sample(8, height, QImage::Format_RGB32);
  QPainter painter(&sample);
  DrawMenuBarBackground(painter, view, sample.rect());
  painter.end();
  return qGray(sample.pixel(sample.rect().center())) >= kDarkestBehindBlue;
}

struct FittedLine {
  QString text;
  QFont font;
};

// The whole line where it fits, else with a shortened name; the times are never cut.
FittedLine FitLine(const LineSource& source, QFont font, int width) {
  const QString name = source.Name();
  for (int pixels = QFontInfo(font).pixelSize();; --pixels) {
    font.setPixelSize(pixels);
    const QFontMetrics metrics(font);
    const QString whole = source.LineFor(name);
    if (metrics.horizontalAdvance(whole) <= width) return {whole, font};
    const int room = width - metrics.horizontalAdvance(source.LineFor(QString()));
    const int wanted =
        std::min(metrics.horizontalAdvance(name), kLeastNameChars * metrics.averageCharWidth());
    if (room >= wanted || pixels <= kLeastFontPixels) {
      const QString shortened = metrics.elidedText(name, Qt::ElideMiddle, std::max(room, 0));
      return {source.LineFor(shortened), font};
    }
  }
}

void DrawCreditOverlay(QPainter& painter, const QWidget& view, const CreditOverlayInputs& inputs) {
  const QRect strip = Strip(view);
  DrawMenuBarBackground(painter, view, strip);
  QRect box(QPoint(kTextLeft, kTextTop), strip.bottomRight());
  const FittedLine line =
      FitLine(LineSource(inputs), view.font(), box.width() - 2 * (kTextLeft + kPlateMargin));
  if (line.text.isEmpty()) return;
  painter.setFont(line.font);
  const int height = painter.fontMetrics().height();
  box.setTop(std::max(kTextTop, (strip.height() - height) / 2));
  if (!IsBlueReadableOnMenuBar(view, strip.height())) {
    const QRect text = painter.boundingRect(box, kTextFlags, line.text);
    const QRect plate = text.adjusted(-kPlateMargin, -1, kPlateMargin, 1);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(kPlateColour));
    painter.drawRoundedRect(plate, plate.height() / 2.0, plate.height() / 2.0);
  }
  painter.setPen(QColor(kTextColour));
  painter.drawText(box, kTextFlags | Qt::TextDontClip, line.text);
}

// Screen readers read an alert out when it comes up, which has no focus to be found by.
QAccessibleInterface* AccessibleOverlay(const QString&, QObject* object) {
  auto* overlay = dynamic_cast<CreditOverlay*>(object);
  return overlay ? new QAccessibleWidget(overlay, QAccessible::AlertMessage) : nullptr;
}

}  // namespace

QString CreditOverlayLine(const WatchedAppTable& watchedApps, std::int32_t frontPid,
                          std::int16_t diskQuotaState) {
  const LineSource source(watchedApps, frontPid, diskQuotaState);
  return source.LineFor(source.Name());
}

CreditOverlay::CreditOverlay(const CreditOverlayInputs& inputs, Screens& screens)
    : inputs_(inputs), screens_(screens), fade_(this, "windowOpacity") {
  setWindowTitle(Localized("Time left"));
  setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                 Qt::X11BypassWindowManagerHint | Qt::WindowTransparentForInput |
                 Qt::WindowDoesNotAcceptFocus);
  setAttribute(Qt::WA_ShowWithoutActivating);
  setAttribute(Qt::WA_OpaquePaintEvent);
  QAccessible::installFactory(AccessibleOverlay);
  fade_.setDuration(kFadeMs);
  fade_.setStartValue(1.0);
  fade_.setEndValue(0.0);
  connect(&fade_, &QPropertyAnimation::finished, this, [this] { TakeAway(); });
}

void CreditOverlay::resizeEvent(QResizeEvent* event) {
  setMask(Strip(*this));
  QWidget::resizeEvent(event);
}

void CreditOverlay::Return() {
  Follow();
  Refresh();
  show();
  raise();
}

bool CreditOverlay::IsUp() const {
  return isVisible() && fade_.state() == QAbstractAnimation::Stopped;
}

void CreditOverlay::Show() {
  if (!IsUp()) countdown_ = kVisibleTicks;
  fade_.stop();
  setWindowOpacity(1);
  Return();
}

void CreditOverlay::Redraw() {
  if (isVisible()) Refresh();
}

void CreditOverlay::Refresh() {
  const QRect strip = Strip(*this);
  setAccessibleName(
      CreditOverlayLine(inputs_.watchedApps, inputs_.frontPid(), inputs_.diskQuotaState()));
  setMask(strip);
  update(strip);
}

void CreditOverlay::Hide() {
  if (!IsUp()) return;
  if (screens_.IsComposited())
    fade_.start();
  else
    TakeAway();
}

// An application that goes full-screen is put over the strip; nothing tells of it. A panel is over
// it on purpose, except where it was asked for since.
void CreditOverlay::CountDown() {
  if (!IsUp()) return;
  --countdown_;
  Redraw();
  if (!MessagePanel::Topmost()) raise();
  if (countdown_ <= 0) Hide();
}

void CreditOverlay::TakeAway() {
  hide();
  destroy();
}

void CreditOverlay::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  DrawCreditOverlay(painter, *this, inputs_);
}

std::unique_ptr<CreditOverlay> CreateCreditOverlay(const CreditOverlayInputs& inputs,
                                                   Screens& screens) {
  return std::make_unique<CreditOverlay>(inputs, screens);
}

void ShowCreditOverlay(CreditOverlay& overlay) {
  overlay.Show();
}
void RedrawCreditOverlay(CreditOverlay& overlay) {
  overlay.Redraw();
}
void HideCreditOverlay(CreditOverlay& overlay) {
  overlay.Hide();
}
void CountDownCreditOverlay(CreditOverlay& overlay) {
  overlay.CountDown();
}

}  // namespace vardell
