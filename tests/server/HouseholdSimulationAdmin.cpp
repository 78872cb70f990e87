// What administrators do in the simulation.
#include <algorithm>

#include "server/HouseholdRestore.h"
#include "tests/server/HouseholdSimulation.h"
#include "tests/support/Waiting.h"

namespace vardell::test {
namespace {

using server::AdminResult;
using server::AdminStatus;

const server::Actor kRoot{0, QStringLiteral("uid 0 (root)")};

QVariantMap Dictionary(const ModelKeys& keys) {
  const double next = static_cast<double>(keys.next - kStartOfAbsoluteTime) / 1000;
  return {{QStringLiteral("Enabled"), keys.enabled},
          {QStringLiteral("AutoUpdateValue"), qlonglong{keys.value}},
          {QStringLiteral("AutoUpdateCoeff"), qlonglong{keys.unit}},
          {QStringLiteral("WE Value"), qlonglong{keys.weekEndValue}},
          {QStringLiteral("WE Coeff"), qlonglong{keys.weekEndUnit}},
          {QStringLiteral("NextAutoUpdate"), keys.next == 0 ? 0 : next}};
}

QVariantMap Dictionary(const ModelOptions& options) {
  const QVariant none = QVariant::fromValue(nullptr);
  const auto parallel = options.unionOfHosts ? QStringLiteral("union") : QStringLiteral("sum");
  const auto scope = options.perHost ? QStringLiteral("user@host") : QStringLiteral("user");
  return {{QStringLiteral("unlimited"), options.unlimited},
          {QStringLiteral("scope"), scope},
          {QStringLiteral("parallel"), parallel},
          {QStringLiteral("rollOver"), options.rollOver},
          {QStringLiteral("rollOverCap"), options.cap ? QVariant(qlonglong{*options.cap}) : none}};
}

template <typename Values>
QVariantMap Differences(const Values* before, const Values& after) {
  QVariantMap changes = Dictionary(after);
  const QVariantMap known = before ? Dictionary(*before) : QVariantMap();
  for (auto value = known.begin(); value != known.end(); ++value) {
    if (changes.value(value.key()) == value.value()) changes.remove(value.key());
  }
  return changes;
}

}  // namespace

AdminResult Simulation::Insist(const std::function<AdminResult()>& change) {
  AdminResult result;
  (void)WaitUntil([&] {
    result = change();
    return result.status != AdminStatus::StoreFailed || !model_.hasDisk;
  });
  return result;
}

void Simulation::Change(const LimitName& name, const ModelKeys& keys, const ModelOptions& options,
                        std::optional<std::int64_t> credit) {
  const ModelAccount* before = model_.Find(name);
  QVariantMap changes = Differences(before ? &before->keys : nullptr, keys);
  if (credit) changes.insert(QStringLiteral("Credit"), qlonglong{*credit});
  Note(QStringLiteral("limits of %1: credit %2, value %3, next %4")
           .arg(TextOf(name))
           .arg(credit.value_or(-1))
           .arg(keys.value)
           .arg(keys.next));
  const std::uint64_t revision = before ? before->revision : 0;
  const AdminResult result = Insist([&] {
    return Its().ChangeLimits(kRoot, name.first, name.second, changes, revision,
                              Dictionary(options));
  });
  AdminStatus wanted = model_.hasDisk ? AdminStatus::Ok : AdminStatus::StoreFailed;
  if (credit == kSpent) wanted = AdminStatus::BadValue;
  Expect(QStringLiteral("the status: ") + result.message, static_cast<int>(result.status),
         static_cast<int>(wanted));
  if (wanted == AdminStatus::Ok) {
    model_.Change(name, keys, options, credit);
    if (isClockSet_ || model_.boot >= 600'000) model_.TopUp(name);
    if (wasBusy_) {
      TopUp();
    } else if (result.entry) {
      Expect(QStringLiteral("the entry's credit"), result.entry->credit, model_.Find(name)->credit);
    }
  }
  Compare(name);
}

void Simulation::ChangeWithOldRevision(const LimitName& name) {
  const ModelAccount* account = model_.Find(name);
  if (!account) return;
  const AdminResult result = Its().ChangeLimits(
      kRoot, name.first, name.second, {{QStringLiteral("Credit"), 7}}, account->revision - 1);
  Expect(QStringLiteral("the status with an old revision"), static_cast<int>(result.status),
         static_cast<int>(AdminStatus::RevisionMismatch));
  Compare(name);
}

void Simulation::Remove(const LimitName& name) {
  const ModelAccount* account = model_.Find(name);
  if (!account) return;
  Note(QStringLiteral("%1 is removed").arg(TextOf(name)));
  const AdminResult result =
      Insist([&] { return Its().RemoveLimits(kRoot, name.first, name.second, account->revision); });
  Expect(QStringLiteral("the status of a removal"), static_cast<int>(result.status),
         static_cast<int>(AdminStatus::Ok));
  model_.Remove(name);
  Compare(name);
}

void Simulation::Adjust(const LimitName& name, bool isAddition, std::int64_t minutes,
                        const QString& id) {
  Note(QStringLiteral("%1 %2 %3, id %4")
           .arg(TextOf(name), isAddition ? QStringLiteral("is given") : QStringLiteral("is set to"))
           .arg(minutes)
           .arg(id));
  const auto change = isAddition ? &server::Household::AddCredit : &server::Household::SetCredit;
  const AdminResult result =
      Insist([&] { return (Its().*change)(kRoot, name.first, name.second, minutes, id, {}); });
  const ModelAccount* account = model_.Find(name);
  const auto known = adjustments_.find(id);
  AdminStatus wanted = AdminStatus::Ok;
  std::int64_t added = 0;
  if (!isAddition && minutes == kSpent) {
    wanted = AdminStatus::BadValue;
  } else if (!account) {
    wanted = AdminStatus::NotFound;
  } else if (!model_.hasDisk) {
    wanted = AdminStatus::StoreFailed;
  } else if (known != adjustments_.end()) {
    const Adjustment& its = known->second;
    const bool isSame = its.name == name && its.isAddition == isAddition && its.minutes == minutes;
    wanted = isSame ? AdminStatus::Ok : AdminStatus::IdReused;
    added = isSame ? its.added : 0;
  } else {
    const std::int64_t before = account->credit;
    const std::int64_t after = isAddition ? before + minutes : minutes;
    model_.SetCredit(name, std::clamp<std::int64_t>(after, 0, kMost));
    added = account->credit - before;
    adjustments_[id] = {name, isAddition, minutes, added};
  }
  Expect(QStringLiteral("the status: ") + result.message, static_cast<int>(result.status),
         static_cast<int>(wanted));
  Expect(QStringLiteral("what was added"), result.added, added);
  Compare(name);
}

void Simulation::KeepBackup() {
  Note(QStringLiteral("a backup is made"));
  backup_ = {Its().MakeBackup(), model_.MakeBackup()};
}

void Simulation::Restore(const std::function<void()>& between, bool isFinished) {
  if (!backup_) return;
  Note(QStringLiteral("a restore begins"));
  const AdminResult result = Insist([&]() -> AdminResult {
    const auto restore = Its().BeginRestore(kRoot, backup_->first);
    for (int step = 0; isFinished || step < 2; ++step) {
      if (const auto after = restore->Step()) return {after->status, {}, after->message, {}};
      between();
    }
    return {};
  });
  Expect(QStringLiteral("the restore's status: ") + result.message, static_cast<int>(result.status),
         static_cast<int>(AdminStatus::Ok));
  if (!isFinished) return Note(QStringLiteral("the restore is given up"));
  Note(QStringLiteral("it is restored"));
  model_.Restore(backup_->second);
  CompareAll();
}

}  // namespace vardell::test
