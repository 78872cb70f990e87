#include "limits/DiskQuota.h"

#include <utility>

#include "Common Sources/Localization.h"
#include "limits/SizeString.h"

namespace vardell {
namespace {

constexpr std::int32_t kCreditOfGlobalSettings = 10;
constexpr std::int16_t kTwoChecksAgo = -2;
constexpr std::int64_t kMegabyte = 1 << 20;

void SetDiskLine(const DiskQuotaActions& actions, bool enabled, std::uint64_t limitBytes,
                 std::uint64_t usageBytes) {
  if (actions.setDiskLine) actions.setDiskLine(enabled, limitBytes, usageBytes);
}

void EndSession(WatchedApp& entry, const DiskQuotaActions& actions) {
  entry.pid = actions.loginPid();
  actions.endWatchedApp(entry);
  // The entry lives on, and must not die with the process that led the session.
  entry.pid = 0;
}

void Warn(DiskQuota& quota, std::uint64_t limit, std::uint64_t usage,
          const DiskQuotaActions& actions) {
  quota.messagePending = true;
  actions.showMessage(FormatLocalized(Localized("Disk Space low format"),
                                      {CopySizeString(usage), CopySizeString(limit)}),
                      [&quota] {
                        quota.messagePending = false;
                        quota.warningCounter = -1;
                      });
}

void ApplyFigure(DiskQuota& quota, std::uint64_t usage, const DiskQuotaActions& actions) {
  const WatchedAppPtr entry = std::exchange(quota.asking, {}).lock();
  if (!entry) return;
  const std::int64_t limit = entry->limits.diskQuotaValue * kMegabyte;
  const auto shownLimit = static_cast<std::uint64_t>(limit);
  const DiskQuotaDecision decision = DecideDiskQuota(
      quota.warningCounter, usage, limit, quota.askedUnderMessage || quota.messagePending);
  quota.warningCounter = decision.counter;
  if (decision.endSession) EndSession(*entry, actions);
  if (decision.warn) Warn(quota, shownLimit, usage, actions);
  SetDiskLine(actions, true, shownLimit, usage);
}

}  // namespace

DiskQuotaDecision DecideDiskQuota(std::int16_t counter, std::uint64_t usageBytes,
                                  std::int64_t limitBytes, bool messagePending) {
  DiskQuotaDecision decision;
  decision.counter = counter;
  if (messagePending) return decision;
  if (static_cast<std::int64_t>(usageBytes) <= limitBytes) {
    decision.counter = 0;
    return decision;
  }
  decision.endSession = counter == kTwoChecksAgo;
  decision.warn = counter == 0;
  if (!decision.warn) decision.counter = static_cast<std::int16_t>(counter - 1);
  return decision;
}

void CheckDiskQuota(const WatchedAppPtr& entry, DiskQuota& quota, const DiskQuotaActions& actions) {
  entry->limits.credit = kCreditOfGlobalSettings;
  if (!entry->limits.diskQuotaEnabled) {
    quota.asking.reset();
    SetDiskLine(actions, false, 0, 0);
    return;
  }
  quota.asking = entry;
  quota.askedUnderMessage = quota.messagePending;
  actions.measure([&quota, actions](std::uint64_t usage) { ApplyFigure(quota, usage, actions); });
}

}  // namespace vardell
