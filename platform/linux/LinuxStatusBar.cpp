#include "platform/linux/LinuxStatusBar.h"

#include <QCoreApplication>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <chrono>
#include <utility>

namespace vardell {
namespace {

constexpr int kAnswerLimitMs = 2000;
constexpr std::chrono::seconds kRetryPause{5};
constexpr std::chrono::seconds kHostPatience{5};
constexpr QLatin1String kService("org.kde.StatusNotifierWatcher");
constexpr QLatin1String kPath("/StatusNotifierWatcher");
constexpr const char* kTraySelection = "_NET_SYSTEM_TRAY_S0";

bool IsAbsence(const QDBusMessage& answer) {
  return answer.errorName() == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
         answer.errorName() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner");
}

}  // namespace

LinuxStatusBar::LinuxStatusBar()
    : bus_(QDBusConnection::sessionBus()), desktop_(XcbDesktop::Open()) {
  hostPatience_.setSingleShot(true);
  connect(&hostPatience_, &QTimer::timeout, this, [this] {
    hostIsLate_ = true;
    Decide();
  });
  if (desktop_) {
    managerAtom_ = desktop_->Atom("MANAGER");
    trayAtom_ = desktop_->Atom(kTraySelection);
    desktop_->SelectRootEvents(XCB_EVENT_MASK_STRUCTURE_NOTIFY);
    QCoreApplication::instance()->installNativeEventFilter(this);
  }
  if (!bus_.isConnected()) {
    watcher_ = Watcher::Absent;
    Decide();
    return;
  }
  auto* names =
      new QDBusServiceWatcher(kService, bus_, QDBusServiceWatcher::WatchForOwnerChange, this);
  connect(names, &QDBusServiceWatcher::serviceOwnerChanged, this, &LinuxStatusBar::AskWatcher);
  // From whomever: a sender's name would first be looked up, and waited for.
  bus_.connect(QString(), kPath, kService, QStringLiteral("StatusNotifierHostRegistered"), this,
               SLOT(AskWatcher()));
  AskWatcher();
}

LinuxStatusBar::~LinuxStatusBar() {
  if (QCoreApplication* app = QCoreApplication::instance()) app->removeNativeEventFilter(this);
}

void LinuxStatusBar::WhenKnown(std::function<void()> known) {
  told_ = std::move(known);
  if (known_) Tell();
}

void LinuxStatusBar::Tell() {
  QTimer::singleShot(0, this, [this] {
    if (const auto told = std::exchange(told_, {})) told();
  });
}

void LinuxStatusBar::AskWatcher() {
  if (known_) return;
  QDBusMessage call = QDBusMessage::createMethodCall(
      kService, kPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
  call.setAutoStartService(false);
  call.setArguments({QString(kService), QStringLiteral("IsStatusNotifierHostRegistered")});
  auto* answer = new QDBusPendingCallWatcher(bus_.asyncCall(call, kAnswerLimitMs), this);
  connect(answer, &QDBusPendingCallWatcher::finished, this, [this, answer] {
    answer->deleteLater();
    WatcherAnswered(answer->reply());
  });
}

void LinuxStatusBar::WatcherAnswered(const QDBusMessage& answer) {
  if (answer.type() == QDBusMessage::ReplyMessage && !answer.arguments().isEmpty()) {
    const QVariant value = qvariant_cast<QDBusVariant>(answer.arguments().constFirst()).variant();
    watcher_ = value.toBool() ? Watcher::WithHost : Watcher::WithoutHost;
  } else if (IsAbsence(answer)) {
    watcher_ = Watcher::Absent;
  } else {
    watcher_ = Watcher::Unknown;
    QTimer::singleShot(kRetryPause, this, &LinuxStatusBar::AskWatcher);
  }
  Decide();
}

void LinuxStatusBar::Decide() {
  if (known_) return;
  const bool hasTray = desktop_ && desktop_->HasSelectionOwner(kTraySelection);
  const bool waitsForHost = watcher_ == Watcher::WithoutHost && !hostIsLate_;
  if (hasTray && waitsForHost && !hostPatience_.isActive()) hostPatience_.start(kHostPatience);
  const bool takesTray = hasTray && watcher_ != Watcher::Unknown && !waitsForHost;
  if (watcher_ != Watcher::WithHost && !takesTray) return;
  known_ = true;
  QCoreApplication::instance()->removeNativeEventFilter(this);
  Tell();
}

bool LinuxStatusBar::nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) {
  if (eventType != "xcb_generic_event_t") return false;
  const auto* event = static_cast<const xcb_generic_event_t*>(message);
  if ((event->response_type & 0x7f) != XCB_CLIENT_MESSAGE) return false;
  const auto* told = reinterpret_cast<const xcb_client_message_event_t*>(event);
  if (told->type != managerAtom_ || told->data.data32[1] != trayAtom_) return false;
  QTimer::singleShot(0, this, &LinuxStatusBar::Decide);
  return false;
}

}  // namespace vardell
