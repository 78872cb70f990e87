#include "server/Metrics.h"

#include <initializer_list>
#include <utility>

#include "link/VardellLoader.h"
#include "server/ControlServer.h"
#include "server/Household.h"

namespace vardell::server {
namespace {

constexpr const char* kKindNames[Metrics::kKinds] = {"other",  "fetch", nullptr,  "start",
                                                     "limits", "usage", "report", "kill"};

const char* NameOf(ConnectionEnd end) {
  switch (end) {
    case ConnectionEnd::ByPeer:
      return "peer";
    case ConnectionEnd::UnknownUser:
      return "unknown_user";
    case ConnectionEnd::TooMany:
      return "too_many";
    case ConnectionEnd::TooManyOfPeer:
      return "too_many_of_peer";
    case ConnectionEnd::Malformed:
      return "malformed";
    case ConnectionEnd::Refused:
      return "refused";
    case ConnectionEnd::Unread:
      return "unread";
  }
  return "other";
}

const char* NameOf(KillResult result) {
  switch (result) {
    case KillResult::Killed:
      return "killed";
    case KillResult::Gone:
      return "gone";
    case KillResult::NotTheirs:
      return "not_theirs";
    case KillResult::Protected:
      return "protected";
    case KillResult::Denied:
      return "denied";
    case KillResult::Failed:
      return "failed";
  }
  return "other";
}

QByteArray Escaped(const QByteArray& label) {
  QByteArray text = label;
  return text.replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n");
}

// The families, one after the other.
class Page {
 public:
  using Labels = std::initializer_list<std::pair<const char*, QByteArray>>;

  void Counter(const char* name, const char* help) { Family(name, "counter", help); }
  void Gauge(const char* name, const char* help) { Family(name, "gauge", help); }
  // Of the family that was begun last.
  void Sample(const Labels& labels, const QByteArray& value);
  void Sample(const Labels& labels, std::uint64_t value) {
    Sample(labels, QByteArray::number(qulonglong{value}));
  }
  void Seconds(double value) { Sample({}, QByteArray::number(value, 'f', 6)); }

  const QByteArray& Text() const { return text_; }

 private:
  void Family(const char* name, const char* type, const char* help);

  QByteArray text_;
  QByteArray name_;
};

void Page::Family(const char* name, const char* type, const char* help) {
  name_ = name;
  text_ += "# HELP " + name_ + ' ' + help + "\n# TYPE " + name_ + ' ' + type + '\n';
}

void Page::Sample(const Labels& labels, const QByteArray& value) {
  QByteArray inside;
  for (const auto& [label, text] : labels) {
    inside += (inside.isEmpty() ? "" : ",") + QByteArray(label) + "=\"" + Escaped(text) + '"';
  }
  text_ += name_ + (inside.isEmpty() ? inside : '{' + inside + '}') + ' ' + value + '\n';
}

struct Listener {
  const char* name;
  const Metrics::Connections& connections;
  int open;

  std::uint64_t accepted() const {
    std::uint64_t sum = static_cast<std::uint64_t>(open);
    for (const std::uint64_t count : connections.ended) sum += count;
    return sum;
  }
};

void AppendServer(const ServerStatus& status, const HouseholdFacts& household, Page* page) {
  page->Gauge("vardell_build_info", "The version of the Server; always 1.");
  page->Sample({{"version", status.version.toUtf8()}}, 1);
  page->Gauge("vardell_start_time_seconds", "When the Server was started, since 1970.");
  page->Seconds(static_cast<double>(status.started.toMSecsSinceEpoch()) / 1000);
  page->Gauge("vardell_users", "Users with limits.");
  page->Sample({}, static_cast<std::uint64_t>(household.users));
  page->Gauge("vardell_limits", "Limits of all users.");
  page->Sample({}, static_cast<std::uint64_t>(household.limits));
}

void AppendConnections(const Metrics& metrics, const ServerStatus& status, Page* page) {
  const Listener listeners[] = {{"agents", metrics.agents, status.agents},
                                {"kill", metrics.kills, status.killConnections}};
  page->Gauge("vardell_connections_open", "Connections that are open.");
  for (const Listener& one : listeners) {
    page->Sample({{"listener", one.name}}, static_cast<std::uint64_t>(one.open));
  }
  page->Counter("vardell_connections_accepted_total", "Connections that were accepted.");
  for (const Listener& one : listeners) page->Sample({{"listener", one.name}}, one.accepted());
  page->Counter("vardell_connections_closed_total", "Connections that ended, by why they did.");
  for (const Listener& one : listeners) {
    for (std::size_t end = 0; end < Metrics::kConnectionEnds; ++end) {
      page->Sample({{"listener", one.name}, {"reason", NameOf(static_cast<ConnectionEnd>(end))}},
                   one.connections.ended[end]);
    }
  }
}

void AppendRequests(const Metrics& metrics, Page* page) {
  page->Counter("vardell_requests_total", "Requests of agents and to end processes, by kind.");
  for (std::size_t kind = 0; kind < Metrics::kKinds; ++kind) {
    if (kKindNames[kind]) page->Sample({{"kind", kKindNames[kind]}}, metrics.requests[kind]);
  }
  page->Counter("vardell_kill_requests_total", "Requests to end a process, by what became of it.");
  for (std::size_t result = 0; result < Metrics::kKillResults; ++result) {
    page->Sample({{"verdict", NameOf(static_cast<KillResult>(result))}},
                 metrics.killResults[result]);
  }
  page->Sample({{"verdict", "no_pid"}}, metrics.killsWithoutPid);
  page->Counter("vardell_control_requests_total", "Answers on the control socket, by status.");
  for (std::size_t hundred = 1; hundred < metrics.controlAnswers.size(); ++hundred) {
    page->Sample({{"status", QByteArray::number(static_cast<uint>(hundred)) + "xx"}},
                 metrics.controlAnswers[hundred]);
  }
}

void AppendLedger(const HouseholdFacts& household, Page* page) {
  const struct {
    const char* name;
    const char* help;
    std::uint64_t LedgerTotals::*value;
  } families[] = {
      {"vardell_ledger_rows_total", "Rows of the ledger, by source.", &LedgerTotals::rows},
      {"vardell_ledger_added_minutes_total", "Minutes added to credits.", &LedgerTotals::added},
      {"vardell_ledger_taken_minutes_total", "Minutes taken from credits.", &LedgerTotals::taken},
      {"vardell_ledger_used_minutes_total", "Minutes of use.", &LedgerTotals::used},
  };
  for (const auto& family : families) {
    page->Counter(family.name, family.help);
    for (const auto& [source, totals] : household.ledger) {
      page->Sample({{"source", source.toUtf8()}}, totals.*family.value);
    }
  }
}

void AppendStore(const StoreFacts& store, Page* page) {
  page->Gauge("vardell_store_up", "1 while the store takes changes, 0 while it is away.");
  page->Sample({}, store.isAway ? 0 : 1);
  page->Gauge("vardell_store_changes_waiting", "Changes that are not on disk at all yet.");
  page->Sample({}, store.waiting);
  page->Gauge("vardell_store_changes_spooled", "Changes that are in the spool alone.");
  page->Sample({}, store.spooled);
  page->Counter("vardell_store_batches_total", "Transactions of agents' changes.");
  page->Sample({}, store.batches);
  page->Counter("vardell_store_changes_total", "Changes in those transactions.");
  page->Sample({}, store.changes);
  page->Counter("vardell_store_failures_total", "Transactions that the store refused.");
  page->Sample({}, store.failures);
  page->Counter("vardell_store_seconds_total", "Time that transactions took.");
  page->Seconds(store.seconds);
}

}  // namespace

QByteArray MetricsText(const Metrics& metrics, const ServerStatus& status,
                       const HouseholdFacts& household) {
  Page page;
  AppendServer(status, household, &page);
  AppendConnections(metrics, status, &page);
  AppendRequests(metrics, &page);
  AppendLedger(household, &page);
  AppendStore(household.writing, &page);
  return page.Text();
}

}  // namespace vardell::server
