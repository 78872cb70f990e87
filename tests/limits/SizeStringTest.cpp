#include "limits/SizeString.h"

#include <gtest/gtest.h>

#include <limits>
#include <tuple>

namespace vardell {
namespace {

TEST(SizeStringTest, ChangesUnitAtEachThreshold) {
  const std::tuple<std::uint64_t, const char*> kRows[] = {
      {0, "0 B"},
      {1023, "1023 B"},
      {1024, "1 KB"},
      {65534, "63 KB"},
      {65535, "--"},
      {65536, "64 KB"},
      {1048575, "1023 KB"},
      {1048576, "1.00 MB"},
      {1572864, "1.50 MB"},
      {1073741823, "1024.00 MB"},
      {1073741824, "1.00 GB"},
      {4294967294, "4.00 GB"},
      {4294967295, "--"},
      {4294967296, "4.00 GB"},
      {std::numeric_limits<std::uint64_t>::max(), "17179869184.00 GB"}};
  for (const auto& [bytes, words] : kRows) {
    EXPECT_EQ(CopySizeString(bytes).toStdString(), words) << bytes;
  }
}

}  // namespace
}  // namespace vardell
