// Limits and credit of one application, or of the whole session, for one user.
// The in-memory image is also one of the wire's forms, so layout and size are part of the format
// (native byte order, little-endian). Flags are bytes: an image from outside may hold any value.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vardell {

// The credit that says: spent, and no last minute is granted. Never a real credit.
inline constexpr std::int32_t kSpentCredit = 12345;

struct LimitsRecord {
  double nextTopUpTime = 0;  // seconds since 1 January 2001 00:00 GMT
  std::int32_t credit = 0;   // minutes left
  std::uint8_t reportCredit = 0;
  std::uint8_t enabled = 0;
  std::int8_t topUpCoefficient = 0;  // minutes in a unit of topUpValue: 60 or 1
  std::uint8_t pad0 = 0;
  std::int32_t topUpValue = 0;
  std::int8_t weekEndCoefficient = 0;
  std::uint8_t pad1[3] = {};
  std::int32_t weekEndValue = 0;
  std::uint8_t weekDayCurfewEnabled = 0;
  std::uint8_t weekEndCurfewEnabled = 0;
  std::uint8_t pad2[2] = {};
  std::int32_t weekDayStart = 0;  // minutes since local midnight, allowed from here ...
  std::int32_t weekDayStop = 0;   // ... to before here
  std::int32_t weekEndStart = 0;
  std::int32_t weekEndStop = 0;
  std::uint8_t diskQuotaEnabled = 0;
  std::uint8_t pad3[3] = {};
  std::int32_t diskQuotaValue = 0;  // MiB

  bool operator==(const LimitsRecord& other) const = default;
};

static_assert(sizeof(LimitsRecord) == 56);
static_assert(offsetof(LimitsRecord, credit) == 8);
static_assert(offsetof(LimitsRecord, topUpValue) == 16);
static_assert(offsetof(LimitsRecord, weekEndValue) == 24);
static_assert(offsetof(LimitsRecord, weekDayStart) == 32);
static_assert(offsetof(LimitsRecord, diskQuotaEnabled) == 48);
static_assert(offsetof(LimitsRecord, diskQuotaValue) == 52);

}  // namespace vardell
