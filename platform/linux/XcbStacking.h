// The order of the windows on the screen. Main thread only; a few round trips (10 to 50 µs each).
#pragma once

#include <xcb/xcb.h>

#include <vector>

#include "platform/linux/XcbDesktop.h"

namespace vardell {

// Raises `windows`, which are this program's and children of the root, where a window of another
// program that can be seen lies above one of them. Windows of this program that lay above them
// still do. Where the order is right nothing is sent, so that nothing follows from it.
void RaiseAboveOthers(const XcbDesktop& desktop, const std::vector<xcb_window_t>& windows);

}  // namespace vardell
