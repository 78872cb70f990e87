// What the two halves of the Household, for agents and for administrators, share.
#pragma once

#include <QDate>
#include <QString>
#include <deque>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "server/ConnectedAgent.h"
#include "server/CreditRules.h"
#include "server/Household.h"
#include "server/Store.h"
#include "server/TopUpQueue.h"

namespace vardell::server {

struct Lane {
  LaneState state;
  std::optional<EnforcementTime> lastIdleRow;  // of a report that booked nothing
};

struct Account {
  LimitsRecord limits;
  std::uint64_t revision = 0;
  AccountState state;
  std::map<QString, Lane> lanes;  // by host
  LimitOptions options;
  TopUpMemory topUps;
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

  Impl(std::unique_ptr<Store> itsStore, Clocks itsClocks, HouseholdHooks itsHooks);

  void Load();
  Account* Find(const QString& user, const QString& identifier);
  EnforcementTime Now() const;

  // --- Agents.

  bool MaySpeakFor(const AgentConnection& connection, const QString& user);
  // The record of a connection that speaks for the user now; null where it may not.
  ConnectedAgent* Speaking(const AgentConnection& connection, const QString& user);
  // The account whose credit the request concerns; none for the global settings.
  Account* Counted(const AgentConnection& connection, const QString& user,
                   const QString& identifier);
  // What a fetch is answered with, and what it books.
  std::int32_t CreditForFetch(const AgentConnection& connection, const QString& user,
                              const QString& identifier, Account& account);
  Lane& LaneOf(Account& account, const Name& name, const QString& host, StoreChange* change);
  // Takes over what a rule decided, and puts the difference into the change.
  void TakeOver(const Booking& booking, Account& account, Lane& lane, LedgerRow row,
                StoreChange change);

  // --- Administrators.

  AdminResult ChangeCredit(const CreditChange& wanted);
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
  // Absent while the clock is not believed.
  std::optional<TopUpMoment> MomentOfTopUps() const;
  // A limit has other keys, is new or gone: what of it is due is to be decided again.
  void TopUpsChanged(const Name& name);
  // Where the wall clock or its zone were changed, nothing that was decided holds.
  void NoticeJump(const TopUpMoment& moment);
  // What is due for these, in one transaction; false where the disk fails.
  bool TopUp(const std::vector<Name>& names, const TopUpMoment& moment);

  // --- The disk. Changes of agents wait where it fails; those of administrators do not begin.

  bool HasRoomToBook();
  void Write(StoreChange change);
  bool WriteWaiting();
  bool WriteNow(const std::vector<StoreChange>& changes, QString* error);
  // What waits comes first; false where that cannot be.
  bool WriteFirst(QString* error);
  void Log(const QString& line) const;

  std::unique_ptr<Store> store;
  Clocks clocks;
  HouseholdHooks hooks;
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
  std::vector<StoreChange> waiting;
  Restore* restoring = nullptr;  // the one that is under way
  bool diskFails = false;
  bool fullSaid = false;
  std::chrono::milliseconds lastTry{0};
};

LimitsEntry EntryOf(const QString& user, const QString& identifier, const Account& account);

}  // namespace vardell::server
