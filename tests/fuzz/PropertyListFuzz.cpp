// Any bytes: the reader must answer, and what it accepts must survive being written and read again.
#include <cstdint>
#include <cstdlib>

#include "Common Sources/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vardell;
  const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
  const auto value = ReadPropertyListXml(bytes);
  if (!value) return 0;
  const auto written = WritePropertyListXml(*value);
  if (!written) std::abort();
  const auto again = ReadPropertyListXml(*written);
  if (!again || WritePropertyListXml(*again) != written) std::abort();
  return 0;
}
