// A file by what it is instead of what it is called: a bind mount, a hard link or another name of a
// folder leave it the same.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QHashFunctions>
#include <cstdint>

namespace vardell {

struct FileId {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;  // 0: no file
  bool IsValid() const { return inode != 0; }
  friend bool operator==(const FileId&, const FileId&) = default;
  friend std::size_t qHash(const FileId& id, std::size_t seed = 0) {
    return qHashMulti(seed, id.device, id.inode);
  }
};

// Follows links. Asks no file system that is not on this machine: what the kernel knows must do.
FileId IdOfFile(const QByteArray& path);

}  // namespace vardell
