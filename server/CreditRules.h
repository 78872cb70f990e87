// How credit is charged, right to the minute: pure functions of plain values, no state of their
// own.
//
// An agent pays each minute in advance. A lane is one identifier of one user on one host, and
// `paidUntil` is the moment up to which its use is paid. Reports are claims: what they take away is
// bounded by the time that has really passed, and nothing that they say adds anything.
//
// Times are enforcement time since boot: the boot clock with a second of 1000 ms, whatever the
// length of a second is in a test.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace vardell::server {

using EnforcementTime = std::chrono::milliseconds;

inline constexpr EnforcementTime kMinute = std::chrono::seconds(60);
// How much too early a report of the next minute may come.
inline constexpr EnforcementTime kReportSlack = std::chrono::seconds(5);

EnforcementTime ToEnforcementTime(std::chrono::milliseconds sinceBoot,
                                  std::chrono::milliseconds second);

struct LaneState {
  std::optional<EnforcementTime> paidUntil;  // absent: new, or not since this boot
  bool heardSinceFetch = false;              // a start or a report since the last fetch
  bool startedSinceFetch = false;
};

// Of one user and identifier, shared by all its lanes.
struct AccountState {
  std::int64_t credit = 0;  // minutes; never kSpentCredit, never negative
  bool enabled = false;
  bool spent = false;  // had its grace or its end; no more free minutes until the credit exceeds 0
};

// The credit as it may be kept, and as it may be sent (0 to 2^31-1): never the value that says
// "spent", which becomes one less.
std::int64_t CreditToKeep(std::int64_t credit);
std::int32_t CreditToSend(std::int64_t credit);

// Whole minutes that may be charged now: those that have begun since `paidUntil`, and the next one
// when it begins within the slack.
std::int64_t MinutesDue(EnforcementTime now, EnforcementTime paidUntil);

// What a report says was used. `handed`: what this connection was last given for it; a report
// without one claims a minute. Nothing can be used of 0 or of "spent".
std::int64_t MinutesClaimed(std::optional<std::int32_t> handed, std::int32_t reported);

LaneState AfterStart(EnforcementTime now, LaneState lane);

struct Booking {
  LaneState lane;
  AccountState account;
  std::int64_t charge = 0;  // minutes paid for
  bool grace = false;       // a minute that was used and is not taken from the credit
};

Booking AfterReport(EnforcementTime now, LaneState lane, AccountState account,
                    std::optional<std::int32_t> handed, std::int32_t reported);

struct FetchBooking : Booking {
  std::int32_t answer = 0;  // the credit to send: kSpentCredit where a start finds it all spent
};

// A fetch that neither a start nor a report precedes stands for a report that was lost.
FetchBooking AfterFetch(EnforcementTime now, LaneState lane, AccountState account);

// The account with another credit, which clears `spent` when there is some.
AccountState WithCredit(AccountState account, std::int64_t credit);

}  // namespace vardell::server
