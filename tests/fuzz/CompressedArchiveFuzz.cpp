// The first byte chooses: 0 gives the rest to unpacking as it is, 1 to 3 make it the contents of a
// sound blob of that mode, since no random bytes would pass the digest. What is accepted must
// survive being packed and unpacked again: in its own mode, and in both of those that hold every
// value.

#include <openssl/evp.h>
#include <syslog.h>
#include <zlib.h>

#include <QtEndian>
#include <cstdint>
#include <cstdlib>

#include "Common Sources/CompressedArchive.h"
#include "tests/support/PropertyListValues.h"

namespace {

using namespace vardell;

QByteArray Blob(const QByteArray& contents) {
  uLongf size = compressBound(static_cast<uLong>(contents.size()));
  QByteArray compressed(static_cast<qsizetype>(size), '\0');
  compress2(reinterpret_cast<Bytef*>(compressed.data()), &size,
            reinterpret_cast<const Bytef*>(contents.constData()),
            static_cast<uLong>(contents.size()), Z_BEST_SPEED);
  compressed.truncate(static_cast<qsizetype>(size));
  QByteArray header(20, '\0');
  qToLittleEndian(static_cast<std::uint32_t>(contents.size()), header.data());
  EVP_Digest(compressed.constData(), size, reinterpret_cast<unsigned char*>(header.data()) + 4,
             nullptr, EVP_md5(), nullptr);
  return header + compressed;
}

// Small enough to be packed again at once: shared objects make millions out of a few bytes.
bool IsSmall(const QVariant& value, int* left) {
  if (--*left < 0) return false;
  const auto each = [left](const QVariant& member) { return IsSmall(member, left); };
  const QVariantList list = value.toList();
  const QVariantMap map = value.toMap();
  return std::all_of(list.begin(), list.end(), each) && std::all_of(map.begin(), map.end(), each);
}

void RequireSame(const QVariant& value, std::uint32_t mode) {
  const QByteArray blob = CreateCompressedArchive(value, mode);
  if (blob.isNull()) std::abort();
  if (!test::SameValue(CopyObjectFromCompressedArchive(blob, mode), value)) std::abort();
}

void Unpack(const QByteArray& blob, std::uint32_t mode) {
  const QVariant value = CopyObjectFromCompressedArchive(blob, mode);
  int left = 2000;
  if (!value.isValid() || !IsSmall(value, &left)) return;
  RequireSame(value, mode);
  RequireSame(value, kArchiveSequential);
  RequireSame(value, kArchiveKeyed);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setlogmask(LOG_MASK(LOG_EMERG));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const QByteArray rest(reinterpret_cast<const char*>(data) + 1, static_cast<qsizetype>(size - 1));
  const std::uint32_t mode = data[0] % 4;
  if (mode != 0) {
    Unpack(Blob(rest), mode);
    return 0;
  }
  for (const std::uint32_t each : {kArchiveXml, kArchiveSequential, kArchiveKeyed}) {
    Unpack(rest, each);
  }
  return 0;
}
