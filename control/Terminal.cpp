#include "control/Terminal.h"

#include <langinfo.h>
#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "control/TextTable.h"

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

QString ProgressText(const QString& what, std::int64_t done, std::int64_t total, bool blocks) {
  if (total <= 0) return QStringLiteral("%1: %2").arg(what).arg(done);
  const double share = std::clamp(double(done) / double(total), 0.0, 1.0);
  return QStringLiteral("%1 [%2] %3 %")
      .arg(what, PaddedRight(Bar(share, 1, kBarCells, blocks), kBarCells))
      .arg(static_cast<int>(100 * share));
}

// Qt makes every locale one of UTF-8; this asks for the one that the person has.
bool HasUnicode() {
  const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
  if (locale == nullptr) return false;
  const bool isUtf8 = QByteArray(nl_langinfo_l(CODESET, locale)) == "UTF-8";
  freelocale(locale);
  return isUtf8;
}

bool CanClearLines(int fd) {
  const QByteArray kind = qgetenv("TERM");
  return isatty(fd) == 1 && !kind.isEmpty() && kind != "dumb";
}

void Say(const QString& text) {
  std::fputs(text.toLocal8Bit().constData(), stderr);
  std::fflush(stderr);
}

}  // namespace

Terminal::Terminal()
    : showsProgress_(CanClearLines(STDERR_FILENO)),
      canAsk_(isatty(STDERR_FILENO) == 1 && isatty(STDIN_FILENO) == 1),
      canShowBlocks_(HasUnicode()) {}

Terminal::~Terminal() {
  EndProgress();
}

void Terminal::Progress(const QString& what, std::int64_t done, std::int64_t total) {
  if (IsTimeToDraw()) Draw(ProgressText(what, done, total, canShowBlocks_));
}

void Terminal::Wait(const QString& what) {
  if (!IsTimeToDraw()) return;
  const auto lasted = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begun_);
  Draw(QStringLiteral("%1, %2 s").arg(what).arg(lasted.count()));
}

bool Terminal::IsTimeToDraw() {
  if (!showsProgress_) return false;
  const auto now = Clock::now();
  if (begun_ == Clock::time_point()) begun_ = now;
  return now - begun_ >= kBeforeItShows && now - drawn_ >= kBetweenDrawings;
}

void Terminal::Draw(const QString& text) {
  drawn_ = Clock::now();
  isShown_ = true;
  Say(QLatin1String(kClearLine) + text.left(WidthOf(STDERR_FILENO) - 1));
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
