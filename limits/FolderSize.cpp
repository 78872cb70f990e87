#include "limits/FolderSize.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "Common Sources/Caps.h"
#include "Common Sources/TestHooks.h"

namespace vardell {
namespace {

constexpr std::uint64_t kLargestSize = std::numeric_limits<std::int64_t>::max();
constexpr std::size_t kAccountBytes = 16384;
constexpr int kOpenFolder = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// Of the folders on the way down, the first ones stay open, and so do the last two.
constexpr std::size_t kFoldersKeptOpen = 32;

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

Directory OpenDirectory(int at, const char* name, int flags) {
  const int descriptor = openat(at, name, flags);
  if (descriptor < 0) return nullptr;
  DIR* directory = fdopendir(descriptor);
  if (!directory) close(descriptor);
  return Directory(directory);
}

bool IsSelfOrParent(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

class FolderWalk {
 public:
  explicit FolderWalk(const std::stop_token& stop) : stop_(stop) {}

  std::uint64_t Measure(const char* path) {
    struct stat status {};
    if (stat(path, &status) != 0) return 0;
    if (S_ISREG(status.st_mode)) Count(status);
    if (!S_ISDIR(status.st_mode)) return total_;
    device_ = status.st_dev;
    Enter(OpenDirectory(AT_FDCWD, path, kOpenFolder));
    while (!way_.empty() && !stop_.stop_requested()) Step();
    return total_;
  }

 private:
  struct Folder {
    Directory directory;    // null: closed for now, or lost
    ino_t inode = 0;        // once it was closed
    std::size_t names = 0;  // where those of its folders that wait begin in names_
  };

  void Step() {
    if (!way_.back().directory || names_.size() == way_.back().names) return Leave();
    const std::size_t name = StartOfLastName();
    Directory directory =
        OpenDirectory(dirfd(way_.back().directory.get()), &names_[name], kOpenFolder | O_NOFOLLOW);
    names_.resize(name);
    Enter(std::move(directory));
  }

  void Enter(Directory directory) {
    if (!directory || way_.size() >= kMaxFolderDepth) return;
    way_.push_back({std::move(directory), 0, names_.size()});
    if (way_.size() > kFoldersKeptOpen + 2) CloseForNow(way_[way_.size() - 3]);
    List(way_.back().directory.get());
  }

  void Leave() {
    names_.resize(way_.back().names);
    way_.pop_back();
    if (way_.size() < 2 || !way_.back().directory) return;
    Folder& above = way_[way_.size() - 2];
    if (!above.directory) Reopen(above, dirfd(way_.back().directory.get()));
  }

  void CloseForNow(Folder& folder) {
    struct stat status {};
    if (folder.directory && fstat(dirfd(folder.directory.get()), &status) == 0) {
      folder.inode = status.st_ino;
    }
    folder.directory.reset();
  }

  // A folder that was moved meanwhile has another parent: then the old one is lost, and with it
  // what waits there.
  void Reopen(Folder& folder, int child) {
    Directory directory = OpenDirectory(child, "..", kOpenFolder);
    struct stat status {};
    if (!directory || fstat(dirfd(directory.get()), &status) != 0) return;
    if (status.st_dev == device_ && status.st_ino == folder.inode) {
      folder.directory = std::move(directory);
    }
  }

  void List(DIR* directory) {
    const int descriptor = dirfd(directory);
    while (const dirent* entry = readdir(directory)) {
      if (stop_.stop_requested()) return;
      if (IsSelfOrParent(entry->d_name)) continue;
      struct stat status {};
      if (fstatat(descriptor, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
      if (S_ISREG(status.st_mode)) Count(status);
      // Only of folders: some file systems give each of their files a device of its own.
      if (S_ISDIR(status.st_mode) && status.st_dev == device_) LetWait(entry->d_name);
    }
  }

  void Count(const struct stat& status) {
    const std::uint64_t size = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
    total_ += std::min(size, kLargestSize - total_);
  }

  void LetWait(const char* name) {
    const std::size_t length = std::strlen(name) + 1;
    if (names_.size() + length > kMaxWaitingFolderNameBytes) return;
    names_.insert(names_.end(), name, name + length);
  }

  std::size_t StartOfLastName() const {
    const auto end = names_.rbegin() + 1;
    return static_cast<std::size_t>(std::find(end, names_.rend(), '\0').base() - names_.begin());
  }

  const std::stop_token& stop_;
  dev_t device_ = 0;
  std::uint64_t total_ = 0;
  std::vector<Folder> way_;  // from the top to the folder that is being walked
  std::vector<char> names_;  // of folders that wait to be entered, each with its zero
};

}  // namespace

std::uint64_t GetFolderSize(const QByteArray& nativePath, const std::stop_token& stop) {
  return FolderWalk(stop).Measure(nativePath.constData());
}

std::uint64_t GetHomeFolderSize(const std::stop_token& stop) {
  passwd account{};
  passwd* found = nullptr;
  std::vector<char> buffer(kAccountBytes);
  if (getpwuid_r(getuid(), &account, buffer.data(), buffer.size(), &found) != 0 || !found) return 0;
  return GetFolderSize(TestRoot().toUtf8() + account.pw_dir, stop);
}

}  // namespace vardell
