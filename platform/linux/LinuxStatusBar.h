// StatusBar by what is there: a StatusNotifierWatcher with a host on the session bus, or the owner
// of an X system tray. The toolkit takes the watcher where both are there; so while a watcher waits
// for its host (a panel that still starts), a system tray alone is not taken for some seconds.
// A watcher that does not answer is asked again and again: the toolkit would wait for it, for long.
#pragma once

#include <QAbstractNativeEventFilter>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QTimer>
#include <functional>
#include <optional>

#include "platform/StatusBar.h"
#include "platform/linux/XcbDesktop.h"

namespace vardell {

class LinuxStatusBar : public QObject, public StatusBar, private QAbstractNativeEventFilter {
  Q_OBJECT

 public:
  LinuxStatusBar();
  ~LinuxStatusBar() override;

  bool IsKnown() override { return known_; }
  void WhenKnown(std::function<void()> known) override;

 private Q_SLOTS:
  void AskWatcher();

 private:
  enum class Watcher { Unknown, Absent, WithoutHost, WithHost };

  bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;
  void WatcherAnswered(const QDBusMessage& answer);
  void Decide();
  void Tell();

  QDBusConnection bus_;
  std::optional<XcbDesktop> desktop_;
  xcb_atom_t managerAtom_ = XCB_ATOM_NONE;
  xcb_atom_t trayAtom_ = XCB_ATOM_NONE;
  Watcher watcher_ = Watcher::Unknown;
  bool hostIsLate_ = false;
  bool known_ = false;
  QTimer hostPatience_;
  std::function<void()> told_;
};

}  // namespace vardell
