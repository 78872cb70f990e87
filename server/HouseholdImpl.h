// What the two halves of the Household, for agents and for administrators, share.
#pragma once

#include <QDate>
#include <QString>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "server/ConnectedAgent.h"
#include "server/CreditRules.h"
#include "server/Household.h"
#include "server/Store.h"
#include "server/StoreThread.h"
#include "server/TopUpQueue.h"

namespace vardell::server {

struct Lane {
  LaneState state;
  std::optional<EnforcementTime> lastIdleRow;  // of a report that booked nothing
};

// What was last sent, to be sent again while it is the same.
struct EncodedLimits {
  LimitsRecord limits;
  QByteArray frame;  // empty: nothing yet
};

struct Account {
  LimitsRecord limits;
  std::uint64_t revision = 0;
  AccountState state;
  // By host; where hosts share minutes one without a name besides, which was stored for them all.
  std::map<QString, Lane> lanes;
  LimitOptions options;
  TopUpMemory topUps;
  std::uint64_t version = 0;     // in a shared store
  std::uint64_t lastChange = 0;  // number of the last one by an agent
  EncodedLimits encoded;
};

// A change of one credit that is applied once.
struct CreditChange {
  Actor actor;
  QString user;
  QString identifier;
  QString id;
  QString reason;
  QByteArray digest;  // of everything that is asked for
  std::function<std::int64_t(std::int64_t before)> creditAfter;
};

struct Household::Impl {
  using Name = std::pair<QString, QString>;  // user, identifier

  Impl(std::unique_ptr<Store> store, Clocks itsClocks, HouseholdHooks itsHooks,
       const QString& spool);

  // --- What the store has (HouseholdStored.cpp).

  void TakeLimits(const StoreContents& contents);
  void TakeCredit(const CreditRow& credit);
  void TakeNews(const StoreNews& news);
  // In place of everything but lanes, and of what agents changed after `through`.
  void TakeEverything(const StoreContents& contents, std::uint64_t through);
  std::uint64_t TakeStored();
  void TakeNews(const StoreThread::News& news);

  Account* Find(const QString& user, const QString& identifier);
  EnforcementTime Now() const;

  // --- Agents.

  bool MaySpeakFor(const AgentConnection& connection, const QString& user);
  // The record of a connection that speaks for the user now; null where it may not.
  ConnectedAgent* Speaking(const AgentConnection& connection, const QString& user);
  // Whose credit a request concerns: the user's, or that of the host on a shared account.
  struct Counting {
    Name name;
    Account* account = nullptr;  // null: none; so it is for the global settings
    bool isDenied = false;       // the host should have one and cannot
  };
  // Waits for the store where a host gets its account.
  Counting Counted(const AgentConnection& connection, const QString& user,
                   const QString& identifier);
  // What a fetch is answered with, apart from its form; books what it says.
  struct Fetched {
    Account* account = nullptr;  // whose limits they are; null: of an unknown identifier
    LimitsRecord limits;         // with the credit
  };
  Fetched Fetch(const AgentConnection& connection, const QString& user, const QString& identifier);
  const QByteArray& Encoded(const QString& identifier, const Fetched& fetched);
  // What a fetch is answered with, and what it books.
  Handed CreditForFetch(const AgentConnection& connection, const QString& user,
                        const Counting& counting);
  // The minutes that its hours allow an application; absent where there are none.
  std::optional<std::int32_t> AllowedMinutes(const QString& identifier, const Account& account,
                                             HandedAfter after) const;
  // The limits as they are sent: with the credit, and the session with the hours of today.
  LimitsRecord LimitsToSend(const QString& identifier, const Account& account,
                            std::int32_t credit) const;
  Lane& LaneOf(Account& account, const Name& name, const QString& host, StoreChange* change);
  // Takes over what a rule decided, and puts the difference into the change.
  void TakeOver(const Booking& booking, Account& account, Lane& lane, LedgerRow row,
                StoreChange change);
  // Of the change that is written next.
  void BookUse(const LedgerRow& row);

  // --- Hosts of shared accounts (HouseholdHosts.cpp). Their accounts have names of their own, and
  // the keys and options of the limit, which they follow in its transactions.

  struct HostChanges {
    std::vector<StoreChange> changes;
    std::vector<std::pair<Name, Account>> accounts;
    std::vector<Name> removed;
  };
  std::vector<Name> HostAccounts(const Name& name);
  // The limit that a host's account follows; null where it is none.
  const Account* SharedBy(const Name& name);
  // The account of the host where there is one, else the limit's own.
  Name NameAtHost(const QString& host, const Name& name);
  Counting CountedAtHost(const QString& host, const Name& name);
  bool MakeHostAccount(const Name& name, const Name& own);
  HostChanges FollowedBy(const Actor& actor, const Name& name, const Account* before,
                         const Account& after);
  HostChanges RemovedWith(const Actor& actor, const Name& name, const QString& reason);
  void TakeOver(HostChanges follow);

  // --- Administrators.

  AdminResult ChangeCredit(const CreditChange& wanted);
  std::optional<AdminResult> TryToChangeCredit(const CreditChange& wanted);
  std::optional<AdminResult> TryToChangeLimits(const Actor& actor, const Name& name,
                                               const QVariantMap& keys,
                                               std::uint64_t expectedRevision,
                                               const QVariantMap& options);
  std::optional<AdminResult> TryToRemoveLimits(const Actor& actor, const Name& name,
                                               std::uint64_t expectedRevision);
  // What a new limit begins with.
  Account NewAccount(const Name& name) const;
  // In memory alone: an account; what connections were handed of accounts that are gone.
  void Forget(const Name& name);
  void ForgetHanded();

  // --- Top-ups.

  struct TopUpMoment {
    std::int64_t now = 0;  // milliseconds since 1970
    QTimeZone zone;
  };
  TopUpMoment Moment() const;
  // Absent while the clock is not believed.
  std::optional<TopUpMoment> MomentOfTopUps() const;
  // A limit has other keys, is new or gone: what of it is due is to be decided again.
  void TopUpsChanged(const Name& name);
  // Where the wall clock or its zone were changed, nothing that was decided holds.
  void NoticeJump(const TopUpMoment& moment);
  // What is due for these, in one transaction. After a conflict it is to be decided anew.
  ApplyStatus TopUp(const std::vector<Name>& names, const TopUpMoment& moment);

  // --- Writing. Changes of agents wait for nothing; those of administrators for the store.

  bool HasRoomToBook();
  void Write(StoreChange change, Account& account);
  // Until all that was written is stored, a short time at most; then takes over what is known.
  void CatchUp();
  // Of accounts that CatchUp has made sure of. Takes over what others have changed in a conflict;
  // the accounts' versions are to be taken over last.
  ApplyResult WriteNow(const std::vector<StoreChange>& changes);
  void TakeVersions(const ApplyResult& result);
  // `attempt` decides by what is known, again where another Server was faster: absent then.
  AdminResult Decide(const std::function<std::optional<AdminResult>()>& attempt);
  void Log(const LogEvent& event) const;
  void Count(const StoreChange& change);

  Clocks clocks;
  HouseholdHooks hooks;
  StoreThread keeper;
  std::map<QString, std::map<QString, Account>> users;
  std::map<Name, std::uint64_t> removedRevisions;  // a limit made again goes on from there
  std::map<Name, UsageDays> usage;                 // also of names without an account
  std::map<std::uint64_t, ConnectedAgent> connections;
  std::map<std::uint32_t, QString> userNames;
  TopUpQueue topUps;
  // Of the last TopUpDue: the wall clock less the boot's, and the zone.
  std::optional<std::chrono::milliseconds> wallOffset;
  QTimeZone wallZone;
  bool topUpsWait = false;  // for the disk
  bool hostsWait = false;   // likewise
  std::set<Name> hostsSaidFull;
  Restore* restoring = nullptr;  // the one that is under way
  struct Use {
    std::uint64_t number = 0;
    Name name;
    QDate day;
    std::int64_t minutes = 0;
  };
  std::deque<Use> usesUnderWay;      // of changes that a shared store may not have yet
  std::uint64_t appliedThrough = 0;  // changes in a shared store whose results are known
  EncodedLimits unknown;
  EncodedLimits unknownSettings;
  bool fullSaid = false;
  std::map<QString, LedgerTotals> ledgerTotals;  // by source
};

LimitsEntry EntryOf(const QString& user, const QString& identifier, const Account& account);

}  // namespace vardell::server
