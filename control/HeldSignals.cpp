#include "control/HeldSignals.h"

#include <initializer_list>

namespace vardell::control {
namespace {

constexpr std::initializer_list<int> kInterruptions = {SIGINT, SIGTERM, SIGHUP};

}  // namespace

HeldSignals::HeldSignals() {
  sigemptyset(&held_);
  for (const int number : kInterruptions) sigaddset(&held_, number);
  sigprocmask(SIG_BLOCK, &held_, &before_);
}

HeldSignals::~HeldSignals() {
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

bool HeldSignals::HasCome() const {
  sigset_t waiting;
  sigpending(&waiting);
  for (const int number : kInterruptions) {
    if (sigismember(&waiting, number) == 1) return true;
  }
  return false;
}

void HeldSignals::Forget() {
  const timespec atOnce{};
  while (sigtimedwait(&held_, nullptr, &atOnce) > 0) {
  }
}

}  // namespace vardell::control
