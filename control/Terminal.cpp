#include "control/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace vardell::control {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kBeforeItShows{300};
constexpr std::chrono::milliseconds kBetweenDrawings{100};
constexpr int kUsualWidth = 80;
constexpr int kBarCells = 24;
constexpr char kClearLine[] = "\r\x1b[K";

int WidthOf(int fd) {
  winsize size{};
  if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualWidth;
  return size.ws_col;
}

QString Bar(const QString& what, std::int64_t done, std::int64_t total) {
  if (total <= 0) return QStringLiteral("%1: %2").arg(what).arg(done);
  const auto percent = static_cast<int>(100 * std::clamp(double(done) / double(total), 0.0, 1.0));
  const int filled = kBarCells * percent / 100;
  return QStringLiteral("%1 [%2%3] %4 %")
      .arg(what, QString(filled, QLatin1Char('#')), QString(kBarCells - filled, QLatin1Char('.')))
      .arg(percent, 3);
}

void Say(const QString& text) {
  std::fputs(text.toLocal8Bit().constData(), stderr);
  std::fflush(stderr);
}

}  // namespace

Terminal::Terminal()
    : showsProgress_(isatty(STDERR_FILENO) == 1),
      canAsk_(showsProgress_ && isatty(STDIN_FILENO) == 1) {}

Terminal::~Terminal() {
  EndProgress();
}

void Terminal::Progress(const QString& what, std::int64_t done, std::int64_t total) {
  if (!showsProgress_) return;
  const auto now = Clock::now();
  if (begun_ == Clock::time_point()) begun_ = now;
  if (now - begun_ < kBeforeItShows || now - drawn_ < kBetweenDrawings) return;
  drawn_ = now;
  isShown_ = true;
  Say(QLatin1String(kClearLine) + Bar(what, done, total).left(WidthOf(STDERR_FILENO) - 1));
}

void Terminal::EndProgress() {
  if (isShown_) Say(QLatin1String(kClearLine));
  isShown_ = false;
  begun_ = {};
}

bool Terminal::CanAsk() const {
  return canAsk_;
}

bool Terminal::Confirm(const QString& question) {
  if (!canAsk_) return false;
  EndProgress();
  Say(question + QStringLiteral(" [y/N] "));
  char line[16] = {};
  if (!std::fgets(line, sizeof(line), stdin)) return false;
  return line[0] == 'y' || line[0] == 'Y';
}

int Terminal::width() const {
  return WidthOf(STDOUT_FILENO);
}

}  // namespace vardell::control
