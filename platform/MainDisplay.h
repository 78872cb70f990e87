// Following the main display. Main thread only.
#pragma once

#include <QGuiApplication>
#include <QObject>
#include <QScreen>
#include <functional>

namespace vardell {

// Calls `changed` whenever the main display may have moved, got another size, or is another one, as
// long as `owner` lives.
inline void WatchMainDisplay(QObject* owner, const std::function<void()>& changed) {
  const auto watch = [owner, changed](QScreen* screen) {
    QObject::connect(screen, &QScreen::geometryChanged, owner, changed);
  };
  for (QScreen* screen : QGuiApplication::screens()) watch(screen);
  QObject::connect(qGuiApp, &QGuiApplication::screenAdded, owner, watch);
  QObject::connect(qGuiApp, &QGuiApplication::primaryScreenChanged, owner, changed);
}

}  // namespace vardell
