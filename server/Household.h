// What the Server knows: limits, credit, lanes and the ledger of every user and identifier,
// answered from memory and kept in a Store. Every change is on disk before the call that made it
// returns. Not thread-safe: one thread calls it, the network's. Calls that change something wait
// for the disk.
//
// Credit is 64-bit minutes inside and 0 to 2^31-1 outside; the ledger's sum is the credit, always.
//
// When the disk fails, agents go on being answered from memory, and what they changed is written
// as soon as the disk takes it again (a bounded number of changes); administrators are refused.
#pragma once

#include <QDateTime>
#include <QString>
#include <QVariant>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "link/LimitsRecord.h"

namespace vardell::server {

class Store;

// The two clocks that count: boot time (stands still for nobody; lanes) and wall time (the ledger,
// in the zone whose days count).
struct Clocks {
  std::function<std::chrono::milliseconds()> sinceBoot;
  QString bootId;  // of the boot that sinceBoot counts from; lanes of another one are forgotten
  std::function<QDateTime()> now;
  // Length of an enforcement second; sinceBoot is divided by it before any rule sees it.
  std::chrono::milliseconds second{1000};
};

// One row of the append-only ledger.
struct LedgerRow {
  std::int64_t id = 0;  // 0 until it is stored
  QDateTime time;
  QString user;
  QString identifier;
  QString host;    // of an agent's row; empty otherwise
  QString source;  // "report", "fetch" (a lost report), "grace", "admin"; "presence" is kept free
  std::int64_t minutes = 0;  // what was added to the credit; negative when spent, 0 for grace
  std::int64_t credit = 0;   // afterwards
  std::int64_t used = 0;     // minutes of use that it books, whether or not there was credit
  std::optional<std::int32_t> claimed;  // what an agent's report said
  QString actor;                        // who: "agent" with the user, or "uid 0 (root)"
  QString reason;
};

// The limits of one user and identifier as administrators see them.
struct LimitsEntry {
  QString user;
  QString identifier;
  LimitsRecord limits;  // its credit field is not used
  std::int64_t credit = 0;
  std::uint64_t revision = 0;  // of the limits; counts from 1
};

// Who asks, as the kernel says; never taken from a body.
struct Actor {
  std::uint32_t uid = 0;
  QString name;  // for the ledger: "uid 0 (root)"
};

enum class AdminStatus {
  Ok,
  NotFound,          // no such user or identifier
  RevisionMismatch,  // somebody else changed it meanwhile
  IdReused,          // an adjustment with this id and other contents exists
  UnknownKey,        // `field` is no name of a limit
  BadValue,  // `field` (a key, "user", "identifier", "minutes", "id" or "reason") tells which
  StoreFailed,
};

struct AdminResult {
  AdminStatus status = AdminStatus::Ok;
  QString field;
  QString message;                   // for people; follows the field: "must be true or false"
  std::optional<LimitsEntry> entry;  // afterwards
};

// One connection of an agent, from accept to close.
struct AgentConnection {
  std::uint64_t id = 0;
  QString host;                          // address of the peer; "local" for this machine's own
  std::optional<std::uint32_t> peerUid;  // of a connection from this machine
};

// What else the Household asks and tells; each may be empty.
struct HouseholdHooks {
  // The name of a user of this machine; empty: the account database is asked.
  std::function<std::optional<QString>(std::uint32_t uid)> userOfUid;
  std::function<void(const QString& line)> log;
};

class Household {
 public:
  // Loads everything. Throws std::runtime_error with a line for people when the store is
  // unreadable.
  Household(std::unique_ptr<Store> store, Clocks clocks, HouseholdHooks hooks = {});
  ~Household();

  // --- Agents. A request for a user that the connection may not speak for (one from this machine
  // speaks for its own user only) changes nothing and is answered as an unknown identifier.

  // The dictionary for a kind-1 reply: never empty, credit as this connection is to see it.
  QVariantMap FetchLimits(const AgentConnection& connection, const QString& user,
                          const QString& identifier);
  void ApplicationStarted(const AgentConnection& connection, const QString& user,
                          const QString& identifier);
  void CreditReport(const AgentConnection& connection, const QString& user,
                    const QString& identifier, std::int32_t claimed);
  void ConnectionClosed(std::uint64_t connectionId);
  // Kinds 4 and 5: the user's identifiers with their limits; minutes by day ("5-3-2009").
  QVariantMap LimitsOfUser(const AgentConnection& connection, const QString& user) const;
  QVariantMap UsageByDay(const AgentConnection& connection, const QString& user,
                         const QString& identifier) const;

  // --- Administration.

  std::vector<QString> Users() const;
  std::vector<LimitsEntry> Limits(const QString& user) const;
  std::optional<LimitsEntry> Limits(const QString& user, const QString& identifier) const;

  // Changes some keys (as in limits/LimitsDictionary.h). `expectedRevision`: 0 where it must be
  // new. All or nothing. "Credit" among the keys books the difference in the ledger. A new
  // identifier is Enabled unless the keys say otherwise.
  AdminResult ChangeLimits(const Actor& actor, const QString& user, const QString& identifier,
                           const QVariantMap& keys, std::uint64_t expectedRevision);

  // The credit becomes `minutes`; the difference is booked. Applied once for each `id`; the same id
  // with other contents is IdReused.
  AdminResult SetCredit(const Actor& actor, const QString& user, const QString& identifier,
                        std::int64_t minutes, const QString& id, const QString& reason);

  // Rows with an id above `after`, oldest first, at most `limit`; empty filters match all.
  // At most kMaxLedgerRows; absent when the disk fails, which is logged.
  std::optional<std::vector<LedgerRow>> Ledger(std::int64_t after, const QString& user,
                                               const QString& identifier, int limit) const;

  // Tries again to write what a failing disk has kept waiting; to be called now and then.
  void WriteWhatWaits();

  QString StoreDescription() const;  // for status: what and where

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vardell::server
