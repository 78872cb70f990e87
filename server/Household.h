// What the Server knows: limits, credit, lanes and the ledger of every user and identifier,
// answered from memory and kept in a Store. Not thread-safe: one thread calls it, the network's.
// What agents change is stored by a thread of its own (server/StoreThread.h), and nobody waits for
// it; a call that changes something for administrators, or shows them something, waits until all
// that it shows is on disk.
//
// Several Servers may share a store. What the others change is known a second later; what an
// administrator changes is decided by what the store has then.
//
// Credit is 64-bit minutes inside and 0 to 2^31-1 outside; the ledger's sum is the credit, always.
//
// When the store fails, agents go on being answered from memory, and what they changed is kept in
// the spool, or in memory where that fails too, until the store takes it; administrators are
// refused.
#pragma once

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QTimeZone>
#include <QVariant>
#include <boost/container/flat_map.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "link/LimitsRecord.h"
#include "server/LimitOptions.h"
#include "server/Log.h"

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
  // Of top-ups: the zone of `now`, and whether that is known to be right. Each may be empty: UTC,
  // and not before ten minutes after boot.
  std::function<QTimeZone()> zone = {};
  std::function<bool()> isSet = {};
};

// One row of the append-only ledger.
struct LedgerRow {
  std::int64_t id = 0;  // 0 until it is stored
  QDateTime time;
  QDate day;  // whose use it books; not valid until it is stored: that of the time
  QString user;
  QString identifier;
  QString host;  // of an agent's row; empty otherwise
  // "report", "fetch" (a lost report), "grace", "admin", "top-up", "restore", "scope" (of the hosts
  // of a shared account); "presence" is kept free
  QString source;
  std::int64_t minutes = 0;  // what was added to the credit; negative when spent, 0 for grace
  std::int64_t credit = 0;   // afterwards
  std::int64_t used = 0;     // minutes of use that it books, whether or not there was credit
  std::optional<std::int32_t> claimed;  // what an agent's report said
  QString actor;                        // who: "agent of anna", "server" or "uid 0 (root)"
  QString reason;
};

// The limits of one user and identifier as administrators see them.
struct LimitsEntry {
  QString user;
  QString identifier;
  LimitsRecord limits;  // its credit field is not used
  std::int64_t credit = 0;
  std::uint64_t revision = 0;  // of the limits and options; counts from 1
  LimitOptions options = {};
};

// Minutes of use, of the days that have any; by the wall clock's zone.
using UsageDays = boost::container::flat_map<QDate, std::int64_t>;

// Kept by name, whether or not there are limits.
struct UsageEntry {
  QString user;
  QString identifier;
  UsageDays days;
};

// Everything that there is but the past: the ledger and the audit go on whatever is restored.
struct Backup {
  std::vector<LimitsEntry> limits;  // revisions do not count
  std::vector<UsageEntry> usage;
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
  std::int64_t added = 0;            // by AddCredit: minutes
};

// Of a restore: limits by what becomes of them; "changed" are those with other keys or credit.
struct RestoreCounts {
  int removed = 0;
  int added = 0;
  int changed = 0;
  int same = 0;
};

// One connection of an agent, from accept to close.
struct AgentConnection {
  std::uint64_t id = 0;
  QString host;                          // address of the peer; "local" for this machine's own
  std::optional<std::uint32_t> peerUid;  // of a connection from this machine
};

// One connection of an agent, as administrators see it.
struct AgentFacts {
  struct Application {
    QString identifier;
    std::optional<std::int32_t> credit;  // as sent; none without an enabled limit
    bool unlimited = false;
  };
  QString host;
  QString user;  // whom it last spoke for; empty: nobody yet
  QDateTime since;
  std::vector<Application> applications;  // of that user, fetched in the last two minutes
};

// Of the writing of changes.
struct StoreFacts {
  bool isAway = false;         // the store fails
  QString problem;             // then: why, for people
  QDateTime since;             // then: from when on
  std::uint64_t waiting = 0;   // changes that are not on disk at all yet
  std::uint64_t spooled = 0;   // that are in the spool alone
  std::uint64_t batches = 0;   // transactions of agents' changes
  std::uint64_t changes = 0;   // in them
  std::uint64_t failures = 0;  // transactions that were refused
  double seconds = 0;          // that transactions took
};

// Rows of the ledger since the start, of one source.
struct LedgerTotals {
  std::uint64_t rows = 0;
  std::uint64_t added = 0;  // minutes
  std::uint64_t taken = 0;
  std::uint64_t used = 0;
};

struct HouseholdFacts {
  QString store;  // what and where
  StoreFacts writing;
  std::map<QString, LedgerTotals> ledger;  // by source; not what a restore writes ahead
  int schema = 0;
  int users = 0;   // with limits
  int limits = 0;  // of all users
  QString zone;    // "Europe/Madrid"; an offset, "+01:00", where it has no name
};

// What else the Household asks and tells; each may be empty.
struct HouseholdHooks {
  // The name of a user of this machine; empty: the account database is asked.
  std::function<std::optional<QString>(std::uint32_t uid)> userOfUid;
  LogHook log;
  // On another thread: TakeStored is to be called soon, on the network's.
  std::function<void()> storeHasNews;
};

// What answers a fetch on the wire, and the number of the change that it shows: it must not be sent
// before that one is stored.
struct FetchReply {
  QByteArray frame;
  std::uint64_t after = 0;
};

class Household {
 public:
  class Restore;

  // Loads everything. Throws std::runtime_error with a line for people when the store or the spool
  // is unreadable. `spool`: the file of server/Spool.h; empty: none.
  Household(std::unique_ptr<Store> store, Clocks clocks, HouseholdHooks hooks = {},
            const QString& spool = {});
  // What is not stored yet is stored or spooled, if it can be.
  ~Household();

  // --- Agents. A request for a user that the connection may not speak for (one from this machine
  // speaks for its own user only) changes nothing and is answered as an unknown identifier.
  // Where the limit's scope is the user at a host, a request concerns the account of its host, by
  // the name "USER@HOST"; the first one makes it, with the limit's credit, and waits for the store.
  // A host that cannot get one, because there are kMaxLanesPerIdentifier or the store fails, is
  // answered as if all were spent.

  // The dictionary for a kind-1 reply: never empty, credit as this connection is to see it.
  QVariantMap FetchLimits(const AgentConnection& connection, const QString& user,
                          const QString& identifier);
  // The same as it goes over the wire; encoded once for all that it is the same for.
  FetchReply AnswerFetch(const AgentConnection& connection, const QString& user,
                         const QString& identifier);
  void ApplicationStarted(const AgentConnection& connection, const QString& user,
                          const QString& identifier);
  void CreditReport(const AgentConnection& connection, const QString& user,
                    const QString& identifier, std::int32_t claimed);
  void ConnectionOpened(const AgentConnection& connection);
  void ConnectionClosed(std::uint64_t connectionId);
  // Kinds 4 and 5: the user's identifiers with their limits; minutes by day ("5-3-2009").
  QVariantMap LimitsOfUser(const AgentConnection& connection, const QString& user) const;
  QVariantMap UsageByDay(const AgentConnection& connection, const QString& user,
                         const QString& identifier) const;

  // --- Administration.

  std::vector<QString> Users() const;
  std::vector<LimitsEntry> Limits(const QString& user) const;
  std::optional<LimitsEntry> Limits(const QString& user, const QString& identifier) const;

  // Changes some keys (as in limits/LimitsDictionary.h) and options (as in server/LimitsOptions.h).
  // `expectedRevision`: 0 where it must be new. All or nothing. "Credit" among the keys books the
  // difference in the ledger. A new identifier is Enabled unless the keys say otherwise. A top-up
  // that is due then is booked besides, and in `entry`. The accounts of hosts follow it.
  AdminResult ChangeLimits(const Actor& actor, const QString& user, const QString& identifier,
                           const QVariantMap& keys, std::uint64_t expectedRevision,
                           const QVariantMap& options = {});

  // Removes limits and credit, which is booked to 0; usage stays. Made again, they have a revision
  // that they never had. `entry` is what was removed.
  AdminResult RemoveLimits(const Actor& actor, const QString& user, const QString& identifier,
                           std::uint64_t expectedRevision);

  // The credit becomes `minutes`; the difference is booked. Applied once for each `id`; the same id
  // with other contents is IdReused.
  AdminResult SetCredit(const Actor& actor, const QString& user, const QString& identifier,
                        std::int64_t minutes, const QString& id, const QString& reason);

  // `minutes` (not 0) are added or taken away, as far as the bounds of a credit let them. Applied
  // once as SetCredit is; the ids are shared with it. A repeat answers what was added then.
  AdminResult AddCredit(const Actor& actor, const QString& user, const QString& identifier,
                        std::int64_t minutes, const QString& id, const QString& reason);

  // None where there are neither limits nor usage.
  std::optional<UsageDays> Usage(const QString& user, const QString& identifier) const;
  // Of every identifier with any use.
  std::vector<UsageEntry> Usage(const QString& user) const;

  // Of whom `maySee` says so; it is asked with the connection's user, or an empty name.
  std::vector<AgentFacts> Agents(const std::function<bool(const QString& user)>& maySee) const;
  HouseholdFacts Facts() const;
  QDateTime Now() const;  // by the wall clock

  // --- Backups, in server/HouseholdRestore.h. `backup` must be one that could be this Household's:
  // sound values, no name twice, no day without use.

  Backup MakeBackup() const;
  // What restoring it would change now.
  RestoreCounts Compare(const Backup& backup) const;
  // Begins to replace everything by it. Null while another restore is under way. The Household must
  // outlive it.
  std::unique_ptr<Restore> BeginRestore(const Actor& actor, Backup backup);

  // Rows with an id above `after`, oldest first, at most `limit`; empty filters match all.
  // At most kMaxLedgerRows; absent when the disk fails, which is logged.
  std::optional<std::vector<LedgerRow>> Ledger(std::int64_t after, const QString& user,
                                               const QString& identifier, int limit) const;

  // Gives the top-ups that are due (server/TopUps.h), not too many at once: true where more of them
  // are. To be called every few seconds; microseconds where nothing is due. Nothing is given while
  // the disk fails. A top-up, the next time that it plans (which is no new revision), and what
  // remembers it are written together: whatever ends the Server, each date has one or none.
  bool TopUpDue();

  // --- What agents' changes become; without waiting.

  // Takes over what the store's thread has found; the number up to which changes are stored.
  std::uint64_t TakeStored();
  // The number of the last change.
  std::uint64_t LastChange() const;
  // Waits until all changes are stored, a short time at most.
  void Settle();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vardell::server
