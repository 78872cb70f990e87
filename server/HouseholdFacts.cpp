// The part of the Household that shows usage, agents and itself.
#include <QTimeZone>

#include "server/HouseholdImpl.h"

namespace vardell::server {
namespace {

// The application is fetched once a minute while it runs.
constexpr EnforcementTime kRecent = 2 * kMinute;

QString OffsetText(const QDateTime& time) {
  const int minutes = std::abs(time.offsetFromUtc()) / 60;
  return QStringLiteral("%1%2:%3")
      .arg(time.offsetFromUtc() < 0 ? QLatin1Char('-') : QLatin1Char('+'))
      .arg(minutes / 60, 2, 10, QLatin1Char('0'))
      .arg(minutes % 60, 2, 10, QLatin1Char('0'));
}

QString ZoneText(const Clocks& clocks) {
  const QByteArray name = clocks.zone ? clocks.zone().id() : QByteArray();
  const bool isOffset = name.isEmpty() || name.startsWith("UTC+") || name.startsWith("UTC-");
  return isOffset ? OffsetText(clocks.now()) : QString::fromUtf8(name);
}

AgentFacts FactsOf(const ConnectedAgent& agent, EnforcementTime now) {
  AgentFacts facts{agent.host, agent.user, agent.since, {}};
  for (const RecentFetches::Fetch& fetch : agent.fetches.All()) {
    if (now - fetch.time <= kRecent) {
      facts.applications.push_back({fetch.identifier, fetch.credit});
    }
  }
  return facts;
}

}  // namespace

std::optional<UsageDays> Household::Usage(const QString& user, const QString& identifier) const {
  const auto days = impl_->usage.find({user, identifier});
  if (days != impl_->usage.end()) return days->second;
  if (impl_->Find(user, identifier)) return UsageDays();
  return std::nullopt;
}

std::vector<UsageEntry> Household::Usage(const QString& user) const {
  std::vector<UsageEntry> entries;
  auto next = impl_->usage.lower_bound({user, QString()});
  for (; next != impl_->usage.end() && next->first.first == user; ++next) {
    entries.push_back({user, next->first.second, next->second});
  }
  return entries;
}

std::vector<AgentFacts> Household::Agents(
    const std::function<bool(const QString& user)>& maySee) const {
  std::vector<AgentFacts> agents;
  for (const auto& [id, agent] : impl_->connections) {
    if (!maySee(agent.user)) continue;
    AgentFacts& facts = agents.emplace_back(FactsOf(agent, impl_->Now()));
    for (AgentFacts::Application& application : facts.applications) {
      const Account* account = impl_->Find(agent.user, application.identifier);
      application.unlimited = account && application.credit && account->options.unlimited;
    }
  }
  return agents;
}

QDateTime Household::Now() const {
  return impl_->clocks.now();
}

HouseholdFacts Household::Facts() const {
  HouseholdFacts facts;
  facts.store = impl_->keeper.Description();
  facts.writing = impl_->keeper.Facts();
  facts.ledger = impl_->ledgerTotals;
  facts.schema = kStoreSchemaVersion;
  facts.users = static_cast<int>(impl_->users.size());
  for (const auto& [user, accounts] : impl_->users) {
    facts.limits += static_cast<int>(accounts.size());
  }
  facts.zone = ZoneText(impl_->clocks);
  return facts;
}

}  // namespace vardell::server
