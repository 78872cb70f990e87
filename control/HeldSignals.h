// While it lives, what would interrupt the process (Ctrl+C, a hang-up, a polite end) waits.
#pragma once

#include <signal.h>

namespace vardell::control {

class HeldSignals {
 public:
  HeldSignals();
  ~HeldSignals();  // what waits comes now
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

  bool HasCome() const;
  void Forget();  // what waits does not come

 private:
  sigset_t held_;
  sigset_t before_;
};

}  // namespace vardell::control
