// Which processes own windows, asked of the X server only after something has changed there: an
// idle desktop costs nothing, however often this is called, and a busy one a single event for each
// call. Main thread only.
#pragma once

#include <sys/types.h>
#include <xcb/xcb.h>

#include <QAbstractNativeEventFilter>
#include <functional>
#include <optional>
#include <vector>

#include "platform/linux/XcbDesktop.h"

namespace vardell {

class XcbWindowOwners : public QAbstractNativeEventFilter {
 public:
  using Ask = std::function<std::vector<pid_t>()>;

  // `ask` is WindowOwners() of XcbDesktop.h. Needs the application object to exist.
  explicit XcbWindowOwners(Ask ask);
  ~XcbWindowOwners() override;
  XcbWindowOwners(const XcbWindowOwners&) = delete;
  XcbWindowOwners& operator=(const XcbWindowOwners&) = delete;

  // As the event loop has heard last: a window that comes while no events are handled is missed
  // until they are. A window that moves counts as a change.
  std::vector<pid_t> Owners();

  bool nativeEventFilter(const QByteArray& type, void* message, qintptr* result) override;

 private:
  bool TellsOfWindows(const xcb_generic_event_t& event) const;
  void Watch(bool watch);

  Ask ask_;
  std::optional<XcbDesktop> desktop_;  // none: no X server, and nothing tells of changes
  xcb_atom_t clientList_ = XCB_ATOM_NONE;
  bool isCurrent_ = false;  // nothing has changed since, and what changes will be told
  std::vector<pid_t> owners_;
};

}  // namespace vardell
