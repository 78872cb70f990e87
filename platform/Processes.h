// Running applications of this login session.
// Implemented by platform/linux/ and by a fake in tests/support/. Called on the main thread only;
// nothing blocks beyond a scan of the process table. Holds no policy: which application is watched
// is decided elsewhere.
#pragma once

#include <QString>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace vardell {

// One process for as long as it lives: unlike a pid it is never used again.
struct ProcessSerialNumber {
  std::int32_t pid = 0;       // 0: the login window of a session that has no leader of its own
  std::uint64_t started = 0;  // start time in the kernel's clock ticks since boot
  friend bool operator==(const ProcessSerialNumber&, const ProcessSerialNumber&) = default;
};

// Where an application comes from, and what names it.
struct ApplicationInfo {
  QString path;                              // the desktop entry, or the bare executable
  bool isBundle = false;                     // a desktop entry; a bare executable otherwise
  std::optional<QString> identifier;         // bundles only; absent where the bundle names none
  std::uint32_t typeCode = 0;                // bundles only: four characters, the first one highest
  std::optional<std::uint32_t> creatorCode;  // four characters, the first one highest
  QString displayName;                       // in the user's language; may be empty
};

// The identifier of the process whose end ends the session.
inline constexpr char kLoginWindowIdentifier[] = "com.apple.loginwindow";

class Processes {
 public:
  virtual ~Processes() = default;

  // The main process of each application that runs now in this session, and the login window.
  virtual std::vector<ProcessSerialNumber> RunningApplications() = 0;

  // Absent when the process has no location: it has gone, or it is no application.
  virtual std::optional<ApplicationInfo> Application(const ProcessSerialNumber& process) = 0;

  // False for a pid that does not exist and for a zombie; a process that may not be signalled
  // lives.
  virtual bool IsAlive(std::int32_t pid) = 0;

  using Handler = std::function<void(const ProcessSerialNumber&)>;

  // From now on `launched` is called within a second of an application's start (applications that
  // run already are not reported), and `terminated` when one that was seen here has ended: one of
  // RunningApplications() or one that `launched` was called for. Both come from the event loop,
  // never from inside a call of this class.
  virtual void Watch(Handler launched, Handler terminated) = 0;
};

}  // namespace vardell
