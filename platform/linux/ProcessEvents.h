// The kernel's proc connector: a hint that some process has begun to run another program. It may be
// refused, and inside namespaces it is silent: nobody may rely on it. Main thread only.
#pragma once

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <functional>
#include <memory>

namespace vardell {

class ProcessEvents : public QObject {
 public:
  // `hint` is called from the event loop, at most every 100 ms however much happens.
  explicit ProcessEvents(std::function<void()> hint);
  ~ProcessEvents() override;

 private:
  void Drain();

  int socket_ = -1;
  std::unique_ptr<QSocketNotifier> notifier_;
  QTimer pause_;
  bool execSeen_ = false;
  std::function<void()> hint_;
};

}  // namespace vardell
