// The X connection that Qt holds, or another one, and the few questions that are put to the X
// server through it. Main thread only. Every question blocks for one round trip (10 to 50 µs), and
// is answered with nothing where the window has gone meanwhile.
#pragma once

#include <sys/types.h>
#include <xcb/xcb.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

namespace vardell {

struct XcbFree {
  void operator()(void* reply) const { std::free(reply); }
};
template <typename Reply>
using XcbReply = std::unique_ptr<Reply, XcbFree>;

class XcbDesktop {
 public:
  // Absent where this program does not run on an X server.
  static std::optional<XcbDesktop> Open();
  // On a connection of the caller's, which must outlive it. Absent where that one has failed.
  static std::optional<XcbDesktop> On(xcb_connection_t* connection);

  xcb_connection_t* Connection() const { return connection_; }
  xcb_window_t Root() const { return root_; }

  xcb_atom_t Atom(const char* name) const;
  // The 32-bit items of a property, at most `most` of them; empty where there is no such property.
  std::vector<std::uint32_t> Property(xcb_window_t window, xcb_atom_t property, xcb_atom_t type,
                                      std::uint32_t most) const;
  // The process that owns the window; 0 where there is no such window, and where the server cannot
  // tell: a client of another machine.
  pid_t WindowPid(xcb_window_t window) const;
  // True while a client holds that selection, by which it says that it does a job.
  bool HasSelectionOwner(const char* selection) const;
  // Adds to the events of the root window that this connection receives; Qt selects others there.
  void SelectRootEvents(std::uint32_t mask) const;
  // Whether this connection is told what becomes of the windows on the screen: each step of any
  // that is moved wakes this program up. To be ended as often as it was begun.
  void WatchChildrenOfRoot(bool watch) const;
  // Also of a window that has gone.
  bool IsOwn(xcb_window_t window) const;

 private:
  XcbDesktop(xcb_connection_t* connection, xcb_window_t root)
      : connection_(connection), root_(root) {}
  std::uint32_t RootEvents() const;
  bool Exists(xcb_window_t window) const;
  std::optional<pid_t> ResourcePid(xcb_window_t window) const;
  bool IsFromThisMachine(xcb_window_t window) const;

  xcb_connection_t* connection_;
  xcb_window_t root_;
};

// The processes that own a top-level window now, each once; without the window manager and this
// program. Empty where there is no X server.
std::vector<pid_t> WindowOwners();
std::vector<pid_t> WindowOwnersOn(const XcbDesktop& desktop);

}  // namespace vardell
