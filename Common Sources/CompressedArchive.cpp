#include "Common Sources/CompressedArchive.h"

#include <openssl/evp.h>
#include <syslog.h>
#include <zlib.h>

#include <QtEndian>
#include <memory>
#include <new>
#include <optional>

#include "Common Sources/Caps.h"
#include "Common Sources/KeyedArchive.h"
#include "Common Sources/ObjectArchive.h"
#include "Common Sources/PropertyList.h"

namespace vardell {

namespace {

constexpr qsizetype kLengthBytes = 4;
constexpr qsizetype kDigestBytes = 16;
constexpr qsizetype kHeaderBytes = kLengthBytes + kDigestBytes;

// The most bytes that one compressed byte can stand for.
constexpr std::uint64_t kMaxExpansion = 1032;

using Buffer = std::unique_ptr<char[]>;

Buffer Allocate(std::size_t bytes) {
  return Buffer(new (std::nothrow) char[bytes]);
}

std::optional<QByteArray> Serialise(const QVariant& object, std::uint32_t mode) {
  switch (mode) {
    case kArchiveXml:
      return WritePropertyListXml(object);
    case kArchiveSequential:
      return WriteObjectArchive(object);
    case kArchiveKeyed:
      return WriteKeyedArchive(object);
    default:
      return std::nullopt;
  }
}

std::optional<QVariant> Deserialise(const QByteArray& bytes, std::uint32_t mode) {
  switch (mode) {
    case kArchiveXml:
      return ReadPropertyListXml(bytes);
    case kArchiveSequential:
      return ReadObjectArchive(bytes);
    case kArchiveKeyed:
      return ReadKeyedArchive(bytes);
    default:
      return std::nullopt;
  }
}

// Null where the library has no MD5.
QByteArray Digest(QByteArrayView bytes) {
  QByteArray digest(kDigestBytes, '\0');
  const int done =
      EVP_Digest(bytes.data(), static_cast<std::size_t>(bytes.size()),
                 reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_md5(), nullptr);
  return done == 1 ? digest : QByteArray();
}

std::size_t MaxSerialisedBytes(std::uint32_t mode) {
  return mode == kArchiveXml ? kMaxPropertyListBytes : kMaxArchiveBytes;
}

}  // namespace

QByteArray CreateCompressedArchive(const QVariant& object, std::uint32_t mode) {
  const auto serialised = Serialise(object, mode);
  if (!serialised) return {};
  const auto size = static_cast<std::uint32_t>(serialised->size());
  uLongf compressedSize = uLongf{2} * size;
  const Buffer buffer = Allocate(compressedSize);
  if (!buffer) return {};
  (void)compress(reinterpret_cast<Bytef*>(buffer.get()), &compressedSize,
                 reinterpret_cast<const Bytef*>(serialised->constData()), size);
  const QByteArrayView compressed(buffer.get(), static_cast<qsizetype>(compressedSize));
  const QByteArray digest = Digest(compressed);
  if (digest.isNull()) return {};

  QByteArray blob(kLengthBytes, '\0');
  qToLittleEndian(size, blob.data());
  blob += digest;
  blob += compressed;
  // The digest goes as it is, up to its first zero byte.
  syslog(LOG_INFO, "AR compressed data size:%i, uncompressed: %i, md5:%s",
         static_cast<int>(compressedSize), static_cast<int>(size), digest.constData());
  return blob;
}

QVariant CopyObjectFromCompressedArchive(const QByteArray& blob, std::uint32_t mode) {
  if (blob.size() < kHeaderBytes) return {};
  const auto size = qFromLittleEndian<std::uint32_t>(blob.constData());
  const QByteArrayView compressed = QByteArrayView(blob).sliced(kHeaderBytes);
  const auto compressedSize = static_cast<std::uint64_t>(compressed.size());
  if (size > MaxSerialisedBytes(mode) || size > compressedSize * kMaxExpansion) return {};
  const Buffer buffer = Allocate(size);
  if (!buffer) return {};
  if (Digest(compressed) != QByteArrayView(blob).sliced(kLengthBytes, kDigestBytes)) return {};

  // A full buffer is not enough: a stream that goes on is longer than its blob says.
  uLongf length = size;
  const int status = uncompress(reinterpret_cast<Bytef*>(buffer.get()), &length,
                                reinterpret_cast<const Bytef*>(compressed.data()), compressedSize);
  if (status != Z_OK || length != size) return {};
  const auto object =
      Deserialise(QByteArray::fromRawData(buffer.get(), static_cast<qsizetype>(size)), mode);
  return object.value_or(QVariant());
}

}  // namespace vardell
