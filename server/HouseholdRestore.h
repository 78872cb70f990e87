// Replaces everything that a Household knows by a backup, in steps of some ten milliseconds, so
// that agents are answered in between.
//
// Usage is booked first: rows of the ledger, written ahead, that do not count yet. The last step
// changes limits and credit, makes those rows count, and takes the backup's usage over, in one
// transaction; it alone grows with the number of limits. Whatever ends a restore before that leaves
// everything as it was. What agents and administrators do meanwhile is done, and then replaced.
#pragma once

#include <QDate>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "server/Household.h"

namespace vardell::server {

struct Account;
struct StoreChange;

struct RestoreResult {
  AdminStatus status = AdminStatus::Ok;  // or StoreFailed: nothing was changed
  QString message;                       // for people
  RestoreCounts counts;
};

class Household::Restore {
 public:
  // `household.restoring` is this one as long as it lives.
  Restore(Impl& household, Actor actor, Backup backup);
  ~Restore();
  Restore(const Restore&) = delete;
  Restore& operator=(const Restore&) = delete;

  // The result after the last step. Waits for the disk.
  std::optional<RestoreResult> Step();

  bool IsLastStepNext() const { return phase_ == Phase::Finishing; }

  // An agent's use has been booked while this goes on.
  void Booked(const QString& user, const QString& identifier, const QDate& day,
              std::int64_t minutes);

 private:
  enum class Phase { Forgetting, WritingAhead, Finishing };
  using Name = std::pair<QString, QString>;

  std::vector<LedgerRow> NextRows();
  // How many days were compared; none where no name is left.
  std::optional<std::size_t> EnterNextName();
  LedgerRow RowOf(const Name& name, const QDate& day, std::int64_t used) const;
  RestoreResult Finish();
  std::vector<LimitsEntry> NotInBackup() const;
  StoreChange Removal(const LimitsEntry& entry) const;
  StoreChange Setting(const LimitsEntry& entry, const Account* before, const Account& after) const;

  Impl& household_;
  const Actor actor_;
  Phase phase_ = Phase::Forgetting;  // of what an earlier one has left
  std::map<Name, LimitsEntry> limits_;
  std::map<Name, UsageDays> usage_;
  std::optional<Name> entered_;                              // names up to here have been compared
  std::vector<std::pair<QDate, std::int64_t>> differences_;  // of that one
  std::size_t nextDifference_ = 0;                           // to be written ahead
  std::map<std::pair<Name, QDate>, std::int64_t> bookedMeanwhile_;  // of names up to there
};

}  // namespace vardell::server
