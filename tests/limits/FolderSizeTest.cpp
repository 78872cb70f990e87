#include "limits/FolderSize.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QTemporaryDir>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace vardell {
namespace {

using namespace Qt::StringLiterals;

constexpr std::uint64_t kMega = 1u << 20;
constexpr off_t kLargestFile = std::numeric_limits<off_t>::max();

// In memory, where files may have any length; removed by a program that minds no depth.
class Tree {
 public:
  explicit Tree(const char* in = "/dev/shm")
      : folder_(QString::fromLatin1(in) + u"/vardell-tree-XXXXXX"_s) {
    chmod(Path("").c_str(), 0755);
  }
  ~Tree() { (void)!std::system(("rm -rf '" + Path("") + "'").c_str()); }

  std::string Path(const std::string& name) const {
    return folder_.path().toStdString() + "/" + name;
  }
  void Folder(const std::string& name, mode_t mode = 0755) const {
    ASSERT_EQ(mkdir(Path(name).c_str(), mode), 0) << name;
  }
  void File(const std::string& name, off_t size) const {
    const int file = open(Path(name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(ftruncate(file, size), 0) << name;
    close(file);
  }
  void Link(const std::string& name, const std::string& target) const {
    ASSERT_EQ(symlink(target.c_str(), Path(name).c_str()), 0) << name;
  }
  void Socket(const std::string& name) const {
    sockaddr_un address{AF_UNIX, {}};
    Path(name).copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(listener);
  }
  std::uint64_t Size(const std::string& name = "") const {
    return GetFolderSize(QByteArray::fromStdString(Path(name)));
  }

 private:
  QTemporaryDir folder_;
};

TEST(FolderSizeTest, AddsUpTheFiles) {
  const std::tuple<const char*, std::function<void(const Tree&)>, std::uint64_t> kRows[] = {
      {"an empty folder holds nothing", [](const Tree& tree) { tree.Folder("a"); }, 0},
      {"files of folders within folders add up",
       [](const Tree& tree) {
         tree.Folder("a"), tree.Folder("a/b"), tree.Folder("c");
         tree.File("1", 1), tree.File("a/2", 20), tree.File("a/b/3", 300), tree.File("c/4", 4000);
       },
       4321},
      {"neither many files nor many folders are cut off",
       [](const Tree& tree) {
         for (int i = 0; i < 3000; ++i) {
           tree.File("f" + std::to_string(i), 1);
           tree.Folder("d" + std::to_string(i));
           tree.File("d" + std::to_string(i) + "/f", 1);
         }
       },
       6000},
      {"a file with holes counts its length",
       [](const Tree& tree) { tree.File("sparse", off_t{1} << 40); }, std::uint64_t{1} << 40},
      {"a file with two names counts twice",
       [](const Tree& tree) {
         tree.File("one", 50);
         ASSERT_EQ(link(tree.Path("one").c_str(), tree.Path("two").c_str()), 0);
       },
       100},
      {"links lead nowhere, in circles neither",
       [](const Tree& tree) {
         tree.Folder("a");
         tree.File("a/file", 7);
         tree.Link("a/up", ".."), tree.Link("file", "a/file"), tree.Link("folder", "a");
         tree.Link("self", "self"), tree.Link("dangling", "/nowhere"), tree.Link("root", "/usr");
       },
       7},
      {"pipes and sockets count nothing and are not opened",
       [](const Tree& tree) {
         ASSERT_EQ(mkfifo(tree.Path("pipe").c_str(), 0644), 0);
         tree.Socket("socket");
         tree.File("file", 9);
       },
       9},
      {"names may be any bytes",
       [](const Tree& tree) {
         tree.Folder("\xff\xfe");
         tree.File("\xff\xfe/\xc3(\n", 11), tree.File("...", 2), tree.File("%s", 3);
         tree.File(std::string(255, '\x80'), 4);
       },
       20},
      {"a sum that no number holds is the largest",
       [](const Tree& tree) { tree.File("a", kLargestFile), tree.File("b", kLargestFile); },
       std::uint64_t{kLargestFile}},
  };
  for (const auto& [behaviour, make, size] : kRows) {
    const Tree tree;
    ASSERT_NO_FATAL_FAILURE(make(tree)) << behaviour;
    EXPECT_EQ(tree.Size(), size) << behaviour;
  }
}

TEST(FolderSizeTest, MeasuresWhatThePathLeadsTo) {
  const Tree tree;
  tree.Folder("home");
  tree.File("home/file", 70);
  tree.Link("moved", "home");
  EXPECT_EQ(tree.Size("home/file"), 70u);
  EXPECT_EQ(tree.Size("moved"), 70u);
  EXPECT_EQ(tree.Size("nowhere"), 0u);
}

TEST(FolderSizeTest, WhatMayNotBeReadIsPassedBy) {
  const Tree tree;
  std::string deep;
  for (int level = 0; level < 40; ++level) tree.Folder(deep += "m/");
  std::vector<std::string> folders;
  for (const mode_t mode : {0000, 0400, 0100, 0500}) {
    folders.push_back(deep + std::to_string(mode));
    tree.Folder(folders.back());
    tree.Folder(folders.back() + "/folder");
    tree.File(folders.back() + "/file", 10);
    if (geteuid() == 0) (void)!chown(tree.Path(folders.back()).c_str(), 65534, 65534);
    chmod(tree.Path(folders.back()).c_str(), mode);
  }
  const uid_t me = geteuid();
  if (me == 0) {
    ASSERT_EQ(seteuid(65534), 0);
  }
  EXPECT_EQ(tree.Size(), 10u);
  ASSERT_EQ(seteuid(me), 0);
  for (const std::string& folder : folders) chmod(tree.Path(folder).c_str(), 0755);
}

TEST(FolderSizeTest, AnotherFileSystemIsNotEntered) {
  struct stat devices {};
  struct stat memory {};
  ASSERT_EQ(stat("/dev", &devices), 0);
  ASSERT_EQ(stat("/dev/shm", &memory), 0);
  if (devices.st_dev == memory.st_dev) GTEST_SKIP() << "/dev/shm is no file system of its own";
  const Tree tree("/dev/shm");
  tree.File("large", off_t{1} << 50);
  EXPECT_GE(GetFolderSize("/dev/shm"), std::uint64_t{1} << 50);
  EXPECT_LT(GetFolderSize("/dev"), std::uint64_t{1} << 50);
}

// A chain of folders; each `branchEvery`th has a folder with a file on either side of the chain.
std::uint64_t MakeChain(const Tree& tree, int depth, int branchEvery) {
  int folder = open(tree.Path("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::uint64_t files = 0;
  for (int level = 0; level < depth; ++level) {
    for (const char* side : {"a", "z"}) {
      if (level % branchEvery != 0) break;
      mkdirat(folder, side, 0755);
      close(openat(folder, (std::string(side) + "/file").c_str(), O_CREAT | O_WRONLY, 0644));
      const std::string file = "/proc/self/fd/" + std::to_string(folder) + "/" + side + "/file";
      if (truncate(file.c_str(), 5) == 0) files += 5;
    }
    mkdirat(folder, "m", 0755);
    const int next = openat(folder, "m", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(folder);
    folder = next;
  }
  close(folder);
  return files;
}

TEST(FolderSizeTest, DepthCostsNeitherStackNorDescriptors) {
  const Tree tree;
  const std::uint64_t files = MakeChain(tree, 30000, 100);
  ASSERT_EQ(files, 3000u);
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  const rlimit tight{64, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &tight);
  EXPECT_EQ(tree.Size(), files);
  setrlimit(RLIMIT_NOFILE, &usual);
}

TEST(FolderSizeTest, AFolderThatMovesAwayUnderTheWalkTakesOnlyItsNeighboursAlong) {
  const Tree tree;
  std::string deep;
  for (int level = 0; level < 40; ++level) tree.Folder(deep += "m/");
  const std::string branch = deep + "b";
  tree.Folder(branch), tree.Folder(branch + "/c"), tree.Folder(branch + "/c/d");
  tree.File(branch + "/c/d/file", 1);
  tree.File(deep + "file", 1);
  tree.Folder(deep + "a");
  tree.Folder("a"), tree.Folder("z");
  tree.File("a/file", kMega), tree.File("z/file", kMega);
  std::atomic<bool> done = false;
  std::thread mover([&] {
    while (!done) {
      rename(tree.Path(branch).c_str(), tree.Path("moved").c_str());
      rename(tree.Path("moved").c_str(), tree.Path(branch).c_str());
      // A neighbour that waits, whose name is at the top as well: it is walked after the branch,
      // since it is newer.
      rename(tree.Path(deep + "a").c_str(), tree.Path(deep + "x").c_str());
      rename(tree.Path(deep + "x").c_str(), tree.Path(deep + "a").c_str());
    }
  });
  int odd = 0;
  for (int walk = 0; walk < 1000; ++walk) {
    const std::uint64_t size = tree.Size();
    EXPECT_GE(size, 2 * kMega);
    EXPECT_LE(size, 2 * kMega + 3);
    if (size != 2 * kMega + 2) ++odd;
  }
  done = true;
  mover.join();
  EXPECT_GT(odd, 0) << "nothing moved under any walk";
}

TEST(FolderSizeTest, ReturnsAtOnceWhenItIsToldToStop) {
  const Tree tree;
  for (int i = 0; i < 100; ++i)
    tree.Folder(std::to_string(i)), tree.File(std::to_string(i) + "/f", 1);
  std::stop_source stop;
  stop.request_stop();
  EXPECT_EQ(GetFolderSize(QByteArray::fromStdString(tree.Path("")), stop.get_token()), 0u);
}

TEST(FolderSizeTest, TheHomeFolderIsTheOneOfTheAccount) {
  const Tree tree;
  const std::string home = getpwuid(getuid())->pw_dir;
  ASSERT_EQ(std::system(("mkdir -p '" + tree.Path(home) + "'").c_str()), 0);
  tree.File(home + "/file", 33);
  const QByteArray usualHome = qgetenv("HOME");
  qputenv("VARDELL_TEST_ROOT", tree.Path("").c_str());
  qputenv("HOME", "/nowhere");
  EXPECT_EQ(GetHomeFolderSize(), 33u);
  qputenv("HOME", usualHome);
  qunsetenv("VARDELL_TEST_ROOT");
}

}  // namespace
}  // namespace vardell
