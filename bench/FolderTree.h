// A tree of 200,000 files in 20,000 folders, ten of either in each folder; removed with the object.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace vardell {

class FolderTree {
 public:
  explicit FolderTree(const std::string& root) : root_(root) {
    std::vector<std::string> folders{root_};
    for (std::size_t i = 1; i < kFolders; ++i) {
      folders.push_back(folders[(i - 1) / 10] + "/folder" + std::to_string(i));
      if (mkdir(folders.back().c_str(), 0755) != 0) Fail(folders.back());
    }
    for (std::size_t i = 0; i < 10 * kFolders; ++i) {
      AddFile(folders[i % kFolders] + "/file" + std::to_string(i), i % 9973);
    }
  }
  ~FolderTree() { (void)!std::system(("rm -rf '" + root_ + "'").c_str()); }
  FolderTree(const FolderTree&) = delete;
  FolderTree& operator=(const FolderTree&) = delete;

  const std::string& root() const { return root_; }
  std::uint64_t size() const { return size_; }

 private:
  static constexpr std::size_t kFolders = 20000;

  [[noreturn]] static void Fail(const std::string& what) {
    std::perror(what.c_str());
    std::exit(1);
  }
  void AddFile(const std::string& path, std::size_t length) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0 || ftruncate(file, static_cast<off_t>(length)) != 0) Fail(path);
    close(file);
    size_ += length;
  }

  std::string root_;
  std::uint64_t size_ = 0;
};

}  // namespace vardell
