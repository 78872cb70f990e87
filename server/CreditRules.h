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
  bool unlimited = false;  // use is booked and takes nothing from the credit
};

// What is handed where a limit is unlimited, at each fetch anew. An agent shows it as "999 hours 59
// minutes", a figure that stands still, is far from any warning, and lasts for six weeks should the
// Server not be heard of again. It is counted down as any other: reports go on claiming a minute.
inline constexpr std::int32_t kUnlimitedCredit = 59999;

// What a connection was last given for a lane.
struct Handed {
  // NOLINTNEXTLINE(google-explicit-constructor): a credit, usually
  Handed(std::int32_t itsCredit = 0, bool isCapped = false) : credit(itsCredit), capped(isCapped) {}

  std::int32_t credit;  // as it was sent
  bool capped;          // the hours allowed less than there was
};

// The credit as it may be kept, and as it may be sent (0 to 2^31-1): never the value that says
// "spent", which becomes one less.
std::int64_t CreditToKeep(std::int64_t credit);
std::int32_t CreditToSend(std::int64_t credit);
// The account's own, whatever the hours are.
std::int32_t CreditToSend(const AccountState& account);

// Whole minutes that may be charged now: those that have begun since `paidUntil`, and the next one
// when it begins within the slack.
std::int64_t MinutesDue(EnforcementTime now, EnforcementTime paidUntil);

// What a report says was used. A report without anything handed claims a minute. Nothing can be
// used of 0 or of "spent"; but where the hours made it 0 all at once, an agent may have granted a
// last minute, which is reported as 0.
std::int64_t MinutesClaimed(std::optional<Handed> handed, std::int32_t reported);

LaneState AfterStart(EnforcementTime now, LaneState lane);

struct Booking {
  LaneState lane;
  AccountState account;
  std::int64_t charge = 0;  // minutes of use, paid for unless they are unlimited
  bool grace = false;       // a minute that was used and is not taken from the credit
};

Booking AfterReport(EnforcementTime now, LaneState lane, AccountState account,
                    std::optional<Handed> handed, std::int32_t reported);

struct FetchBooking : Booking {
  // The credit to send: kSpentCredit where a start finds it all spent, or not a minute allowed.
  std::int32_t answer = 0;
  bool capped = false;  // the hours allow less than there is
};

// A fetch that neither a start nor a report precedes stands for a report that was lost. `most`: the
// minutes that the hours allow; absent where there are none.
FetchBooking AfterFetch(EnforcementTime now, LaneState lane, AccountState account,
                        std::optional<std::int32_t> most = {});

// The account with another credit, which clears `spent` when there is some.
AccountState WithCredit(AccountState account, std::int64_t credit);

}  // namespace vardell::server
