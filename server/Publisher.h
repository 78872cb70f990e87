// Publishes the Server as a "_vardell5._tcp" service through the Avahi daemon: under a new name
// when the name is taken, and again when the daemon has been restarted. All of Avahi's calls, which
// may wait for the daemon, happen on a thread of the Publisher's own, so that nobody else waits
// with it.
#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace vardell::server {

class Publisher {
 public:
  // The name that agents see now, or none while the service is not published; `message` is a line
  // for the log. Called at each change, on the Publisher's thread or from its constructor.
  using StateHandler =
      std::function<void(const std::optional<QString>& name, const QString& message)>;

  // `serviceName` empty: "Vardell on HOST". Throws std::runtime_error with a line for people when
  // no Avahi daemon runs; one that goes later is waited for, and so is one that says nothing for a
  // second.
  Publisher(std::uint16_t port, const QString& serviceName, StateHandler changed);
  // Withdraws the service. Waits for a call to the daemon that is under way, but for no more than a
  // second: the thread is then left behind, and the handler is called no more.
  ~Publisher();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the thread
};

}  // namespace vardell::server
