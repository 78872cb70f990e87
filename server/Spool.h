// A synced local file that keeps agents' changes, in order, while the store fails. One Server at a
// time uses it; it also says who that Server is, so that a store knows what it has had from it. An
// empty one that was copied from another machine becomes this Server's own.
// Used by one thread at a time; calls wait for the disk.
//
// The file: records of a length and a CRC-32 (both 32 bits, big-endian) and that many bytes. The
// first one is the name of the format with the Server's id, each other one a number and a change.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <optional>
#include <vector>

#include "server/Store.h"

namespace vardell::server {

struct NumberedChange {
  std::uint64_t number = 0;
  StoreChange change;
};

class Spool {
 public:
  // Opens or makes the file, for its owner alone. An end that was not written whole is cut off;
  // where more than that is damaged, all that follows is moved to PATH.damaged. Throws
  // std::runtime_error with a line for people when it cannot be used, or is in use.
  explicit Spool(const QString& path);
  ~Spool();
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;

  const QString& ServerId() const { return serverId_; }
  std::uint64_t Count() const { return count_; }
  std::uint64_t LastNumber() const { return lastNumber_; }  // 0: empty
  bool WasDamaged() const { return wasDamaged_; }

  // All of them, synced, or none. False, with a line for people, where the disk refuses or the file
  // would exceed kMaxSpoolBytes.
  [[nodiscard]] bool Append(const std::vector<NumberedChange>& changes, QString* error);

  // The next ones, from the first on after the file was opened; at most `most`. Empty at the end,
  // and where the file cannot be read (`error` is not empty then).
  std::vector<NumberedChange> Next(std::size_t most, QString* error);
  void Rewind();

  // All that it has is in the store.
  [[nodiscard]] bool Clear(QString* error);

 private:
  std::optional<QByteArray> ReadRecord(std::int64_t offset) const;
  void MakeHeader();
  bool ReadHeader();
  void Scan();
  bool IsTorn(std::int64_t offset) const;
  void KeepDamaged(std::int64_t offset);
  bool Truncate(std::int64_t size);

  const QString path_;
  int file_ = -1;
  QString serverId_;
  bool isOfOtherMachine_ = false;
  std::int64_t begin_ = 0;  // of the first change
  std::int64_t end_ = 0;
  std::int64_t next_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t lastNumber_ = 0;
  bool wasDamaged_ = false;
};

}  // namespace vardell::server
