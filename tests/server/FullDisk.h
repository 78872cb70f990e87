// A disk without room.
#pragma once

#include <signal.h>
#include <sys/resource.h>

namespace vardell::server {

// While it lives, files of this process cannot grow beyond a size.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes = 0) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit little = before_;
    little.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &little);
  }
  ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

}  // namespace vardell::server
