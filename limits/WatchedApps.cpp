#include "limits/WatchedApps.h"

#include <algorithm>

#include "Common Sources/Diagnostics.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/Localization.h"
#include "Common Sources/ShellHelpers.h"
#include "limits/ApplicationIdentifier.h"
#include "limits/LimitsDictionary.h"
#include "link/Requests.h"

namespace vardell {

namespace {

struct Candidate {
  QString identifier;
  QString displayName;
  std::int32_t pid = 0;
};

Candidate Identify(const ProcessSerialNumber& process, const ApplicationInfo& application) {
  const std::optional<QString> identifier = MakeApplicationIdentifier(application);
  if (identifier) return {*identifier, application.displayName, process.pid};
  PrintErrorLine(QStringLiteral("Unable to watch application at ") +
                 FileUrl(application.path).toString(QUrl::FullyEncoded));
  return {QLatin1String(kUnknownApplicationIdentifier), application.displayName, 0};
}

bool WindowServerOwnsSessions(System& system) {
  const SystemVersion version = system.Version();
  return version.major == 10 && version.minor >= 11;
}

void LearnLoginPid(const WatchContext& context, const ProcessSerialNumber& process) {
  if (!WindowServerOwnsSessions(context.system)) {
    context.loginPid = process.pid;
    return;
  }
  context.loginPid = GetWindowServerPid();
  PrintErrorLine(QStringLiteral("Login pid is %1").arg(context.loginPid));
}

bool IsWatched(const WatchedAppTable& table, const Candidate& candidate) {
  return std::any_of(table.begin(), table.end(), [&](const WatchedAppPtr& entry) {
    return entry->pid == candidate.pid && entry->identifier == candidate.identifier;
  });
}

void GrantLastMinute(const WatchContext& context, LimitsRecord& limits) {
  if (limits.credit < 1) limits.credit = context.lastMinuteCredit ? 1 : kSpentCredit;
}

void AddGlobalSettings(const WatchContext& context, WatchedAppTable& table) {
  const QString identifier = QLatin1String(kGlobalSettingsIdentifier);
  const LimitsRecord fetched = FetchLimits(context.link, context.currentUserName, identifier);
  auto entry = std::make_shared<WatchedApp>();
  entry->limits.diskQuotaEnabled = fetched.diskQuotaEnabled;
  entry->limits.diskQuotaValue = fetched.diskQuotaValue;
  entry->identifier = identifier;
  table.push_back(std::move(entry));
}

}  // namespace

void FillWatchedApps(const WatchContext& context, WatchedAppTable& table) {
  for (const ProcessSerialNumber& process : context.processes.RunningApplications()) {
    (void)AddWatchedApp(context, process, table);
  }
  AddGlobalSettings(context, table);
}

bool AddWatchedApp(const WatchContext& context, const ProcessSerialNumber& process,
                   WatchedAppTable& table) {
  const std::optional<ApplicationInfo> application = context.processes.Application(process);
  if (!application) return false;
  Candidate candidate = Identify(process, *application);
  if (candidate.identifier == QLatin1String(kLoginWindowIdentifier)) {
    LearnLoginPid(context, process);
    candidate.pid = context.loginPid;
    candidate.displayName = Localized("computer");
    if (const WatchedAppPtr entry = FindWatchedApp(table, candidate.identifier)) {
      entry->pid = context.loginPid;
      return false;
    }
  }
  if (IsWatched(table, candidate)) return false;

  (void)SendAppStarted(context.link, context.currentUserName, candidate.identifier);
  LimitsRecord limits = FetchLimits(context.link, context.currentUserName, candidate.identifier);
  if (!limits.enabled) return false;
  GrantLastMinute(context, limits);

  auto entry = std::make_shared<WatchedApp>();
  entry->limits = limits;
  entry->identifier = candidate.identifier;
  entry->displayName = candidate.displayName;
  entry->pid = candidate.pid;
  table.push_back(std::move(entry));
  return true;
}

bool RefreshWatchedApp(const WatchContext& context, WatchedApp& entry, bool lastMinuteAllowed) {
  LimitsRecord limits = FetchLimits(context.link, context.currentUserName, entry.identifier);
  if (!limits.enabled) return true;
  if (lastMinuteAllowed) GrantLastMinute(context, limits);
  entry.limits = limits;
  entry.ticks = 0;
  return false;
}

void RemoveWatchedAppsWithPid(std::int32_t pid, WatchedAppTable& table) {
  // The index moves on after a removal too: the second of two neighbours stays until the next call.
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (table[i]->pid == pid) table.erase(table.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

void RemoveWatchedAppForProcess(const ProcessSerialNumber& process, WatchedAppTable& table) {
  if (process.pid != 0) RemoveWatchedAppsWithPid(process.pid, table);
}

WatchedAppPtr FindWatchedApp(const WatchedAppTable& table, const QString& identifier) {
  const auto found = std::find_if(table.begin(), table.end(), [&](const WatchedAppPtr& entry) {
    return entry->identifier == identifier;
  });
  return found == table.end() ? nullptr : *found;
}

}  // namespace vardell
