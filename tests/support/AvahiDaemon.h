// The Avahi daemon of tools/desktop: away, back, or standing still; and what it finds.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <QFile>
#include <map>
#include <memory>

#include "platform/linux/AvahiDiscovery.h"
#include "tests/support/Waiting.h"

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

// The services of a type, by their names, as they come and go.
class FoundServices {
 public:
  FoundServices(AvahiDiscovery& discovery, const QString& type)
      : discovery_(discovery),
        browser_(discovery.SearchForServices(
            QStringLiteral("local"), type, [this](std::uint32_t flags, const NetService& service) {
              services.insert_or_assign(service.name, service);
              if (flags & kNetServiceFlagRemove) services.erase(service.name);
              discovery_.Stop();
            })) {
    EXPECT_NE(browser_, nullptr);
  }
  // Delivers until it is known, or no more.
  bool RunUntil(const QString& name, bool known = true) {
    return WaitUntil([&] {
      discovery_.Run(200ms);
      return (services.count(name) == 1) == known;
    });
  }

  std::map<QString, NetService> services;

 private:
  AvahiDiscovery& discovery_;
  std::unique_ptr<NetServiceBrowser> browser_;
};

}  // namespace vardell::test
