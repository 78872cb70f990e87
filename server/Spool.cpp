#include "server/Spool.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <QCryptographicHash>
#include <QDataStream>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>
#include <QUuid>
#include <QtEndian>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Common Sources/Caps.h"
#include "Common Sources/TestHooks.h"

namespace vardell::server {
namespace {

constexpr std::int64_t kRecordHeaderBytes = 8;
constexpr char kFormat[] = "vardell spool 1";

std::runtime_error Unusable(const QString& path, const QString& why) {
  return std::runtime_error(
      QStringLiteral("the spool %1 cannot be used (%2); give another --spool FILE")
          .arg(path, why)
          .toStdString());
}

QString SystemText() {
  return QString::fromLocal8Bit(strerror(errno));
}

// So that the copies of a machine's image do not pass for one Server.
QByteArray ThisMachine() {
  QFile file(ProductPath(QStringLiteral("/etc/machine-id")));
  if (!file.open(QIODevice::ReadOnly)) return {};
  return QCryptographicHash::hash(file.read(64), QCryptographicHash::Sha256);
}

bool SyncFolder(const QString& folder) {
  const int file = open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (file < 0) return false;
  const bool isSynced = fsync(file) == 0;
  close(file);
  return isSynced;
}

std::uint32_t Checksum(const QByteArray& bytes) {
  return static_cast<std::uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(bytes.constData()), static_cast<uInt>(bytes.size())));
}

void AppendRecord(const QByteArray& payload, QByteArray* bytes) {
  char header[kRecordHeaderBytes];
  qToBigEndian(static_cast<std::uint32_t>(payload.size()), header);
  qToBigEndian(Checksum(payload), header + 4);
  bytes->append(header, kRecordHeaderBytes);
  bytes->append(payload);
}

bool WriteAll(int file, const QByteArray& bytes, std::int64_t offset) {
  qsizetype done = 0;
  while (done < bytes.size()) {
    const ssize_t count = pwrite(file, bytes.constData() + done,
                                 static_cast<std::size_t>(bytes.size() - done), offset + done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += count;
  }
  return true;
}

QDataStream& operator<<(QDataStream& stream, const CreditRow& row) {
  return stream << row.user << row.identifier << qint64{row.minutes} << row.spent;
}
QDataStream& operator>>(QDataStream& stream, CreditRow& row) {
  qint64 minutes = 0;
  stream >> row.user >> row.identifier >> minutes >> row.spent;
  row.minutes = minutes;
  return stream;
}

QDataStream& operator<<(QDataStream& stream, const LaneRow& row) {
  return stream << row.user << row.identifier << row.host << qint64{row.paidUntil.count()};
}
QDataStream& operator>>(QDataStream& stream, LaneRow& row) {
  qint64 paidUntil = 0;
  stream >> row.user >> row.identifier >> row.host >> paidUntil;
  row.paidUntil = std::chrono::milliseconds(paidUntil);
  return stream;
}

QDataStream& operator<<(QDataStream& stream, const LedgerRow& row) {
  stream << row.time.toMSecsSinceEpoch() << qint32{row.time.offsetFromUtc()} << row.day << row.user
         << row.identifier << row.host << row.source << qint64{row.minutes} << qint64{row.credit}
         << qint64{row.used} << row.claimed.has_value() << qint32{row.claimed.value_or(0)};
  return stream << row.actor << row.reason;
}
QDataStream& operator>>(QDataStream& stream, LedgerRow& row) {
  qint64 time = 0;
  qint32 offset = 0;
  qint64 minutes = 0;
  qint64 credit = 0;
  qint64 used = 0;
  bool isClaim = false;
  qint32 claimed = 0;
  stream >> time >> offset >> row.day >> row.user >> row.identifier >> row.host >> row.source >>
      minutes >> credit >> used >> isClaim >> claimed >> row.actor >> row.reason;
  row.time = QDateTime::fromMSecsSinceEpoch(time, Qt::OffsetFromUTC, offset);
  row.minutes = minutes;
  row.credit = credit;
  row.used = used;
  if (isClaim) row.claimed = claimed;
  return stream;
}

template <typename Value>
void Put(QDataStream& stream, const std::optional<Value>& value) {
  stream << value.has_value();
  if (value) stream << *value;
}

template <typename Value>
void Take(QDataStream& stream, std::optional<Value>* value) {
  bool isThere = false;
  stream >> isThere;
  if (isThere) stream >> value->emplace();
}

QByteArray Encode(const NumberedChange& numbered) {
  QByteArray bytes;
  QDataStream stream(&bytes, QIODevice::WriteOnly);
  stream.setVersion(QDataStream::Qt_6_0);
  stream << quint64{numbered.number};
  Put(stream, numbered.change.credit);
  Put(stream, numbered.change.lane);
  Put(stream, numbered.change.forgottenLane);
  Put(stream, numbered.change.ledger);
  return bytes;
}

std::optional<NumberedChange> Decode(const QByteArray& bytes) {
  QDataStream stream(bytes);
  stream.setVersion(QDataStream::Qt_6_0);
  NumberedChange numbered;
  quint64 number = 0;
  stream >> number;
  numbered.number = number;
  Take(stream, &numbered.change.credit);
  Take(stream, &numbered.change.lane);
  Take(stream, &numbered.change.forgottenLane);
  Take(stream, &numbered.change.ledger);
  if (stream.status() != QDataStream::Ok || number == 0) return std::nullopt;
  return numbered;
}

}  // namespace

Spool::Spool(const QString& path) : path_(path) {
  file_ = open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
               S_IRUSR | S_IWUSR);
  if (file_ < 0) throw Unusable(path, SystemText());
  try {
    if (flock(file_, LOCK_EX | LOCK_NB) != 0) {
      throw Unusable(path, QStringLiteral("another vardell-server has it"));
    }
    struct stat facts {};
    if (fstat(file_, &facts) != 0) throw Unusable(path, SystemText());
    end_ = facts.st_size;
    const bool isNew = !ReadHeader();
    if (isNew) MakeHeader();
    Scan();
    if (!isNew && isOfOtherMachine_ && count_ == 0) MakeHeader();
  } catch (const std::runtime_error&) {
    close(file_);
    throw;
  }
}

Spool::~Spool() {
  close(file_);
}

std::optional<QByteArray> Spool::ReadRecord(std::int64_t offset) const {
  char header[kRecordHeaderBytes];
  if (end_ - offset < kRecordHeaderBytes) return std::nullopt;
  if (pread(file_, header, kRecordHeaderBytes, offset) != kRecordHeaderBytes) return std::nullopt;
  const std::uint32_t size = qFromBigEndian<std::uint32_t>(header);
  if (size > kMaxSpoolRecordBytes || size > end_ - offset - kRecordHeaderBytes) return std::nullopt;
  QByteArray payload(static_cast<qsizetype>(size), Qt::Uninitialized);
  const ssize_t count = pread(file_, payload.data(), size, offset + kRecordHeaderBytes);
  const bool isWhole = count == static_cast<ssize_t>(size) &&
                       Checksum(payload) == qFromBigEndian<std::uint32_t>(header + 4);
  return isWhole ? std::optional(payload) : std::nullopt;
}

// A new file, or one whose making was interrupted.
void Spool::MakeHeader() {
  QByteArray payload;
  QDataStream stream(&payload, QIODevice::WriteOnly);
  stream.setVersion(QDataStream::Qt_6_0);
  serverId_ = QUuid::createUuid().toString(QUuid::WithoutBraces);
  stream << QString::fromLatin1(kFormat) << serverId_ << ThisMachine();
  QByteArray bytes;
  AppendRecord(payload, &bytes);
  if (end_ > std::max<std::int64_t>(begin_, bytes.size())) {
    throw Unusable(path_, QStringLiteral("it is damaged, or a file of another kind"));
  }
  const bool isMade = Truncate(0) && WriteAll(file_, bytes, 0) && fsync(file_) == 0 &&
                      SyncFolder(QFileInfo(path_).absolutePath());
  if (!isMade) throw Unusable(path_, SystemText());
  begin_ = end_ = next_ = bytes.size();
}

bool Spool::ReadHeader() {
  const std::optional<QByteArray> header = ReadRecord(0);
  if (!header) return false;
  QDataStream stream(*header);
  stream.setVersion(QDataStream::Qt_6_0);
  QString format;
  QByteArray machine;
  stream >> format >> serverId_ >> machine;
  isOfOtherMachine_ = machine != ThisMachine();
  if (format != QLatin1String(kFormat) || serverId_.isEmpty()) {
    throw Unusable(path_, QStringLiteral("it is a file of another kind or version"));
  }
  begin_ = next_ = kRecordHeaderBytes + header->size();
  return true;
}

void Spool::Scan() {
  std::int64_t offset = begin_;
  while (const std::optional<QByteArray> record = ReadRecord(offset)) {
    const std::optional<NumberedChange> numbered = Decode(*record);
    if (!numbered) break;
    ++count_;
    lastNumber_ = numbered->number;
    offset += kRecordHeaderBytes + record->size();
  }
  if (offset == end_) return;
  if (!IsTorn(offset)) KeepDamaged(offset);
  if (!Truncate(offset) || fsync(file_) != 0) throw Unusable(path_, SystemText());
}

// What a Server was writing when it was killed. Nothing was promised of it, and no room is needed
// to keep it: the disk may be full.
bool Spool::IsTorn(std::int64_t offset) const {
  const std::int64_t left = end_ - offset;
  char size[4];
  if (left < kRecordHeaderBytes) return true;
  if (pread(file_, size, sizeof size, offset) != sizeof size) return false;
  const auto bytes = qFromBigEndian<std::uint32_t>(size);
  return bytes <= kMaxSpoolRecordBytes && bytes > left - kRecordHeaderBytes;
}

void Spool::KeepDamaged(std::int64_t offset) {
  wasDamaged_ = true;
  QFile spool(path_);
  QFile copy(path_ + QStringLiteral(".damaged"));
  bool isKept = spool.open(QIODevice::ReadOnly) && spool.seek(offset) &&
                copy.open(QIODevice::WriteOnly | QIODevice::Truncate);
  while (isKept && !spool.atEnd()) {
    const QByteArray bytes = spool.read(1 << 20);
    isKept = !bytes.isEmpty() && copy.write(bytes) == bytes.size();
  }
  if (!isKept || !copy.flush()) throw Unusable(path_, QStringLiteral("it is damaged"));
}

bool Spool::Truncate(std::int64_t size) {
  if (ftruncate(file_, size) != 0) return false;
  end_ = size;
  return true;
}

bool Spool::Append(const std::vector<NumberedChange>& changes, QString* error) {
  QByteArray bytes;
  for (const NumberedChange& change : changes) AppendRecord(Encode(change), &bytes);
  if (end_ + bytes.size() > kMaxSpoolBytes) {
    *error = QStringLiteral("the spool %1 is full; bring the store back").arg(path_);
    return false;
  }
  if (!WriteAll(file_, bytes, end_) || fdatasync(file_) != 0) {
    *error = QStringLiteral("the spool %1 cannot be written (%2)").arg(path_, SystemText());
    (void)!ftruncate(file_, end_);
    return false;
  }
  end_ += bytes.size();
  count_ += changes.size();
  if (!changes.empty()) lastNumber_ = changes.back().number;
  return true;
}

std::vector<NumberedChange> Spool::Next(std::size_t most, QString* error) {
  std::vector<NumberedChange> changes;
  while (changes.size() < most && next_ < end_) {
    const std::optional<QByteArray> record = ReadRecord(next_);
    std::optional<NumberedChange> numbered = record ? Decode(*record) : std::nullopt;
    if (!numbered) {
      *error = QStringLiteral("the spool %1 cannot be read").arg(path_);
      return {};
    }
    next_ += kRecordHeaderBytes + record->size();
    changes.push_back(std::move(*numbered));
  }
  return changes;
}

void Spool::Rewind() {
  next_ = begin_;
}

bool Spool::Clear(QString* error) {
  if (end_ != begin_ && (!Truncate(begin_) || fdatasync(file_) != 0)) {
    *error = QStringLiteral("the spool %1 cannot be written (%2)").arg(path_, SystemText());
    return false;
  }
  next_ = begin_;
  count_ = 0;
  lastNumber_ = 0;
  return true;
}

}  // namespace vardell::server
