#include "limits/HomeFolderMeasurement.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <system_error>
#include <utility>

namespace vardell {
namespace {

constexpr int kPatienceAtEndMs = 1000;

void MeasureAndWrite(const std::stop_token& stop, const HomeFolderMeasurement::Measure& measure,
                     int answer) {
  const std::uint64_t bytes = measure(stop);
  if (!stop.stop_requested()) (void)!write(answer, &bytes, sizeof bytes);
  close(answer);
}

// Without a thread where the system has none to spare: a user can use them all up.
std::jthread StartWorker(const HomeFolderMeasurement::Measure& measure, int answer) {
  try {
    return std::jthread(MeasureAndWrite, measure, answer);
  } catch (const std::system_error&) {
    return {};
  }
}

bool MakePipe(int (&ends)[2]) {
  if (pipe(ends) != 0) return false;
  for (const int end : ends) (void)fcntl(end, F_SETFD, FD_CLOEXEC);
  return true;
}

}  // namespace

HomeFolderMeasurement::HomeFolderMeasurement(Measure measure) : measure_(std::move(measure)) {}

HomeFolderMeasurement::~HomeFolderMeasurement() {
  if (!worker_.joinable()) return;
  worker_.request_stop();
  pollfd end{figure_, POLLIN, 0};
  const bool hasEnded = poll(&end, 1, kPatienceAtEndMs) == 1;
  notifier_.reset();
  close(figure_);
  if (!hasEnded) worker_.detach();
}

bool HomeFolderMeasurement::Start(Deliver deliver) {
  if (worker_.joinable()) return false;
  int ends[2];
  if (!MakePipe(ends)) return false;
  worker_ = StartWorker(measure_, ends[1]);
  if (!worker_.joinable()) {
    close(ends[0]);
    close(ends[1]);
    return false;
  }
  figure_ = ends[0];
  deliver_ = std::move(deliver);
  notifier_ = std::make_unique<QSocketNotifier>(figure_, QSocketNotifier::Read);
  QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(),
                   [this] { TakeFigure(); });
  return true;
}

void HomeFolderMeasurement::TakeFigure() {
  std::uint64_t bytes = 0;
  const bool isThere = read(figure_, &bytes, sizeof bytes) == sizeof bytes;
  // It is the notifier that calls.
  notifier_->setEnabled(false);
  notifier_.release()->deleteLater();
  worker_.join();
  close(figure_);
  const Deliver deliver = std::exchange(deliver_, nullptr);
  if (isThere) deliver(bytes);
}

}  // namespace vardell
