#include "server/CreditRules.h"

#include <algorithm>
#include <limits>

#include "link/LimitsRecord.h"

namespace vardell::server {
namespace {

void Charge(Booking& booking, EnforcementTime paidUntil, std::int64_t minutes) {
  booking.charge = minutes;
  booking.lane.paidUntil = paidUntil + minutes * kMinute;
  if (booking.account.unlimited) return;
  booking.account =
      WithCredit(booking.account, std::max<std::int64_t>(0, booking.account.credit - minutes));
}

void GrantGrace(Booking& booking, EnforcementTime paidUntil) {
  booking.grace = true;
  booking.lane.paidUntil = paidUntil + kMinute;
  booking.account.spent = true;
}

// How an agent that grants a last minute begins it.
bool BeginsGrace(const AccountState& account, std::optional<Handed> handed, std::int32_t reported) {
  const bool isAtEnd = account.credit == 0 && !account.spent && !account.unlimited;
  return isAtEnd && handed && handed->credit == 0 && reported == 0;
}

// Nothing is left to begin with.
bool IsDenied(const AccountState& account, std::optional<std::int32_t> most) {
  const bool isSpent = account.spent && account.credit == 0 && !account.unlimited;
  return isSpent || most == 0;
}

bool StandsForLostReport(const LaneState& lane, const AccountState& account) {
  return account.enabled && lane.paidUntil && !lane.heardSinceFetch;
}

}  // namespace

EnforcementTime ToEnforcementTime(std::chrono::milliseconds sinceBoot,
                                  std::chrono::milliseconds second) {
  const std::int64_t length = std::max<std::int64_t>(1, second.count());
  const std::int64_t whole = sinceBoot.count() / length;
  const std::int64_t rest = sinceBoot.count() % length;
  return EnforcementTime(whole * 1000 + rest * 1000 / length);
}

std::int64_t CreditToKeep(std::int64_t credit) {
  return credit == kSpentCredit ? credit - 1 : credit;
}

std::int32_t CreditToSend(std::int64_t credit) {
  constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(CreditToKeep(credit), 0, most));
}

std::int32_t CreditToSend(const AccountState& account) {
  return account.unlimited ? kUnlimitedCredit : CreditToSend(account.credit);
}

std::int64_t MinutesDue(EnforcementTime now, EnforcementTime paidUntil) {
  const EnforcementTime open = now + kMinute + kReportSlack - paidUntil;
  return open < EnforcementTime::zero() ? 0 : open / kMinute;
}

std::int64_t MinutesClaimed(std::optional<Handed> handed, std::int32_t reported) {
  if (!handed) return 1;
  if (handed->credit == kSpentCredit) return 0;
  if (handed->credit <= 0) return handed->capped && reported == 0 ? 1 : 0;
  return std::max<std::int64_t>(0, std::int64_t{handed->credit} - reported);
}

AccountState WithCredit(AccountState account, std::int64_t credit) {
  account.credit = CreditToKeep(credit);
  if (account.credit > 0) account.spent = false;
  return account;
}

LaneState AfterStart(EnforcementTime now, LaneState lane) {
  if (!lane.paidUntil || now - *lane.paidUntil > kMinute) lane.paidUntil = now;
  lane.heardSinceFetch = true;
  lane.startedSinceFetch = true;
  return lane;
}

Booking AfterReport(EnforcementTime now, LaneState lane, AccountState account,
                    std::optional<Handed> handed, std::int32_t reported) {
  Booking booking{lane, account};
  booking.lane.heardSinceFetch = true;
  if (!account.enabled) return booking;
  const EnforcementTime paidUntil = lane.paidUntil.value_or(now);
  const std::int64_t due = MinutesDue(now, paidUntil);
  const std::int64_t charge = std::clamp<std::int64_t>(MinutesClaimed(handed, reported), 0, due);
  if (charge > 0) {
    Charge(booking, paidUntil, charge);
  } else if (due > 0 && BeginsGrace(account, handed, reported)) {
    GrantGrace(booking, paidUntil);
  }
  const bool hasEnd = booking.account.credit == 0 && !account.unlimited;
  if (reported < 0 && hasEnd) booking.account.spent = true;
  return booking;
}

FetchBooking AfterFetch(EnforcementTime now, LaneState lane, AccountState account,
                        std::optional<std::int32_t> most) {
  FetchBooking booking{{lane, account}};
  if (StandsForLostReport(lane, account)) {
    const std::int64_t due = MinutesDue(now, *lane.paidUntil);
    if (due > 0) Charge(booking, *lane.paidUntil, 1);
  }
  const std::int32_t own = CreditToSend(booking.account);
  booking.capped = most && *most < own;
  booking.answer = booking.capped ? *most : own;
  if (lane.startedSinceFetch && IsDenied(booking.account, most)) booking.answer = kSpentCredit;
  booking.lane.heardSinceFetch = false;
  booking.lane.startedSinceFetch = false;
  return booking;
}

}  // namespace vardell::server
