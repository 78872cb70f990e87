// Screens on X11: covers are windows that the window manager does not see, and input is taken by
// grabs. Where this program does not run on an X server nothing is covered or taken.
#pragma once

#include <xcb/xcb.h>
#include <QAbstractNativeEventFilter>
#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QWindow>

#include <memory>
#include <optional>
#include <vector>

#include "platform/Screens.h"
#include "platform/linux/XcbDesktop.h"

namespace vardell {

class BlackWindow;

class XcbScreens : public QObject, public Screens, private QAbstractNativeEventFilter {
 public:
  explicit XcbScreens(QObject* parent = nullptr);
  ~XcbScreens() override;

  QRect MainDisplayBounds() override;
  bool IsComposited() override;
  void CaptureSecondaryDisplays() override;
  void ReleaseDisplays() override;
  void SetSystemUIMode(SystemUIMode mode, int options, QWindow* window) override;
  bool HoldsInput() override;

 private:
  bool eventFilter(QObject* object, QEvent* event) override;
  bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;
  void CoverScreens();
  void CoverScreensSoon();
  void Tell(xcb_window_t touched, bool hidden);
  std::vector<xcb_window_t> Windows() const;
  void TakeInput();
  void StackSoon();
  void Stack();

  std::optional<XcbDesktop> desktop_;
  bool capturing_ = false;
  std::vector<std::unique_ptr<BlackWindow>> covers_;
  QPointer<QWindow> inputWindow_;
  bool taking_ = false;  // or trying to
  bool holdsInput_ = false;
  QTimer grab_;
  QTimer stack_;
  QElapsedTimer sinceStacked_;
};

}  // namespace vardell
