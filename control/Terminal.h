// The person at the terminal: how far long work has come, and a question before something is lost.
// Nothing is shown where standard error is no terminal, or one that cannot clear a line.
#pragma once

#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>

namespace vardell::control {

class Terminal {
 public:
  // Looks at the descriptors of the process.
  Terminal();
  ~Terminal();  // takes the bar away

  // Work that lasts: a bar with `what` appears when it has lasted a while. `total` 0: not known.
  // Calls cost next to nothing between two drawings.
  void Progress(const QString& what, std::int64_t done, std::int64_t total);
  // Work of which nothing is known until it is done: likewise, with the seconds that it lasts.
  void Wait(const QString& what);
  // The bar goes; what is printed next begins at a clear line.
  void EndProgress();

  // Asks on the terminal, "no" being the usual answer. False, without a question, where standard
  // input or standard error is no terminal.
  bool Confirm(const QString& question);
  bool CanAsk() const;

  int width() const;  // columns of standard output; 80 where it is no terminal
  bool canShowBlocks() const { return canShowBlocks_; }  // the locale's characters are Unicode's

 private:
  bool IsTimeToDraw();
  void Draw(const QString& text);

  bool showsProgress_ = false;
  bool canAsk_ = false;
  bool canShowBlocks_ = false;
  bool isShown_ = false;
  std::chrono::steady_clock::time_point begun_{};
  std::chrono::steady_clock::time_point drawn_{};
};

}  // namespace vardell::control
