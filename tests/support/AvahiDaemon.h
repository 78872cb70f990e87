// The Avahi daemon of tools/desktop: away, back, or standing still.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <QFile>

namespace vardell::test {

inline void TellDesktop(int signal) {
  kill(qEnvironmentVariableIntValue("VARDELL_DESKTOP_PID"), signal);
}
inline void StopAvahi() {
  TellDesktop(SIGUSR2);
}
inline void StartAvahi() {
  TellDesktop(SIGUSR1);
}

// It stands still for as long as this lives.
class FrozenAvahi {
 public:
  FrozenAvahi() {
    QFile file(qEnvironmentVariable("VARDELL_DESKTOP_DIR") + QStringLiteral("/avahi.pid"));
    pid_ = file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toInt() : 0;
    EXPECT_TRUE(pid_ > 1 && kill(pid_, SIGSTOP) == 0);
  }
  ~FrozenAvahi() {
    if (pid_ > 1) kill(pid_, SIGCONT);
  }

 private:
  pid_t pid_ = 0;
};

}  // namespace vardell::test
