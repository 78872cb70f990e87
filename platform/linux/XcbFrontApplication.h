// FrontApplication by the window manager's hints. Where this program does not run on an X server
// nothing is ever in front.
#pragma once

#include <QAbstractNativeEventFilter>
#include <QObject>
#include <functional>
#include <optional>

#include "platform/FrontApplication.h"
#include "platform/linux/XcbDesktop.h"

namespace vardell {

class XcbFrontApplication : public QObject,
                            public FrontApplication,
                            private QAbstractNativeEventFilter {
 public:
  explicit XcbFrontApplication(QObject* parent = nullptr);
  ~XcbFrontApplication() override;

  std::int32_t FrontPid() override;
  bool IsDisplayCaptured() override;
  void Watch(std::function<void()> switched) override;

 private:
  bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;
  xcb_window_t ActiveWindow() const;
  void ActiveWindowChanged();

  std::optional<XcbDesktop> desktop_;
  xcb_atom_t activeWindowAtom_ = XCB_ATOM_NONE;
  std::int32_t toldPid_ = 0;  // the one that the watcher knows
  bool checkScheduled_ = false;
  std::function<void()> switched_;
};

}  // namespace vardell
