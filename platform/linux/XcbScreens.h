// Screens on X11: covers are windows that the window manager does not see, and input is taken by
// grabs. Where this program does not run on an X server nothing is covered or taken.
#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Screens.h"
#include "platform/linux/XcbDesktop.h"

namespace vardell {

class XcbScreens : public QObject, public Screens {
 public:
  explicit XcbScreens(QObject* parent = nullptr);
  ~XcbScreens() override;

  QRect MainDisplayBounds() override;
  bool IsComposited() override;
  void CaptureSecondaryDisplays() override;
  void ReleaseDisplays() override;
  void SetSystemUIMode(SystemUIMode mode, int options, QWindow* window) override;

 private:
  void CoverScreens();
  void TakeInput();

  std::optional<XcbDesktop> desktop_;
  bool capturing_ = false;
  std::vector<std::unique_ptr<QWindow>> covers_;
  QPointer<QWindow> inputWindow_;
  QTimer retry_;
};

}  // namespace vardell
