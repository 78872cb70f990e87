// To be preloaded: each fsync and fdatasync takes VARDELL_FLUSH_US microseconds more. Their number
// is in the file VARDELL_FLUSH_COUNT, 8 bytes in the machine's order, while the program runs.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace {

using Flush = int (*)(int);

struct Settings {
  Settings() {
    const char* delay = std::getenv("VARDELL_FLUSH_US");
    if (delay) microseconds = std::atol(delay);
    const char* path = std::getenv("VARDELL_FLUSH_COUNT");
    const int fd = path ? open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600) : -1;
    if (fd < 0) return;
    if (ftruncate(fd, sizeof(std::uint64_t)) == 0) {
      void* page = mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (page != MAP_FAILED) count = static_cast<std::atomic<std::uint64_t>*>(page);
    }
    close(fd);
  }

  long microseconds = 0;
  std::atomic<std::uint64_t>* count = nullptr;  // in the file; programs that look see it grow
};

const Settings& TheSettings() {
  static const Settings settings;
  return settings;
}

int FlushSlowly(const char* name, int fd) {
  const auto flush = reinterpret_cast<Flush>(dlsym(RTLD_NEXT, name));
  const Settings& settings = TheSettings();
  if (settings.count) ++*settings.count;
  if (settings.microseconds > 0) {
    const timespec delay{settings.microseconds / 1'000'000,
                         settings.microseconds % 1'000'000 * 1000};
    nanosleep(&delay, nullptr);
  }
  return flush(fd);
}

}  // namespace

extern "C" int fsync(int fd) {
  return FlushSlowly("fsync", fd);
}

extern "C" int fdatasync(int fd) {
  return FlushSlowly("fdatasync", fd);
}
