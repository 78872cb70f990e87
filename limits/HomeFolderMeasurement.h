// Measures the home folder on a thread of its own, one measurement at a time. The thread touches
// nothing of its owner's: it has a copy of the measuring function, a token that tells it to stop,
// and the writing end of a pipe for the figure. Everything below is called on the main thread,
// which needs an event loop; nothing blocks but the destructor.
#pragma once

#include <QSocketNotifier>
#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <thread>

#include "limits/FolderSize.h"

namespace vardell {

class HomeFolderMeasurement {
 public:
  using Measure = std::function<std::uint64_t(const std::stop_token&)>;
  using Deliver = std::function<void(std::uint64_t bytes)>;

  // `measure` is called on the worker thread, and should return soon once it is told to stop.
  explicit HomeFolderMeasurement(Measure measure = GetHomeFolderSize);
  // Tells the worker to stop and drops its figure. A worker that does not come back within a second
  // (a file system that does not answer) is left to itself.
  ~HomeFolderMeasurement();
  HomeFolderMeasurement(const HomeFolderMeasurement&) = delete;
  HomeFolderMeasurement& operator=(const HomeFolderMeasurement&) = delete;

  // `deliver` is called once, from the event loop, when the figure is in. False, and it will not be
  // called, where a measurement is under way or the system has no thread or descriptor to spare.
  bool Start(Deliver deliver);

 private:
  void TakeFigure();

  Measure measure_;
  Deliver deliver_;
  std::jthread worker_;
  int figure_ = -1;  // the reading end
  std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace vardell
