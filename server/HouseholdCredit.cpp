// The part of the Household in which administrators change credit and read the ledger.
#include <QCryptographicHash>
#include <QDataStream>
#include <QIODevice>
#include <algorithm>
#include <limits>
#include <stdexcept>

#include "Common Sources/Caps.h"
#include "server/HouseholdChanges.h"
#include "server/LimitsKeys.h"

namespace vardell::server {
namespace {

constexpr std::int64_t kMostMinutes = std::numeric_limits<std::int32_t>::max();

std::optional<AdminResult> CheckIdAndReason(const QString& id, const QString& reason) {
  if (const auto problem = NameProblem(id)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("id"), *problem);
  }
  if (reason.isEmpty()) return std::nullopt;
  if (const auto problem = NameProblem(reason)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("reason"), *problem);
  }
  return std::nullopt;
}

// `kind` tells what may be asked for under the same id apart; empty for SetCredit, whose digests in
// older stores have none.
QByteArray DigestOf(const CreditChange& change, std::int64_t minutes, const QString& kind) {
  QByteArray body;
  QDataStream fields(&body, QIODevice::WriteOnly);
  fields << change.user << change.identifier << qint64{minutes} << change.reason;
  if (!kind.isEmpty()) fields << kind;
  return QCryptographicHash::hash(body, QCryptographicHash::Sha256);
}

}  // namespace

AdminResult Household::Impl::ChangeCredit(const CreditChange& wanted) {
  return Decide([&] { return TryToChangeCredit(wanted); });
}

std::optional<AdminResult> Household::Impl::TryToChangeCredit(const CreditChange& wanted) {
  const QString& user = wanted.user;
  const QString& identifier = wanted.identifier;
  if (auto refused = CheckNames(user, identifier)) return *refused;
  if (auto refused = CheckIdAndReason(wanted.id, wanted.reason)) return *refused;
  if (IsGlobalSettings(identifier)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("identifier"),
                  QStringLiteral("has no credit: the global settings hold only the disk quota"));
  }
  Account* account = Find(user, identifier);
  if (!account) return Refuse(AdminStatus::NotFound, {}, QStringLiteral("there is no such limit"));

  QString error;
  std::optional<AdjustmentRow> known;
  const auto look = [&](Store& store) { known = store.Adjustment(wanted.id); };
  if (!keeper.Call(look, &error)) return Refuse(AdminStatus::StoreFailed, {}, error);
  if (known && known->digest == wanted.digest) {
    return AdminResult{AdminStatus::Ok, {}, {}, EntryOf(user, identifier, *account), known->added};
  }
  if (known) {
    return Refuse(AdminStatus::IdReused, QStringLiteral("id"),
                  QStringLiteral("was used for another change"));
  }

  const std::int64_t before = account->state.credit;
  Account after = *account;
  after.state = WithCredit(after.state, wanted.creditAfter(before));
  const LimitsEntry entry = EntryOf(user, identifier, after);
  const std::int64_t added = entry.credit - before;
  const QDateTime now = clocks.now();
  StoreChange change;
  change.basedOn = account->version;
  change.credit = {user, identifier, after.state.credit, after.state.spent};
  change.ledger = AdminRow(wanted.actor, now, entry, before, wanted.reason);
  change.adjustment = AdjustmentRow{wanted.id, wanted.digest, added};
  change.audit = Audited(wanted.actor, now, "credit", entry, AuditText(*account), AuditText(after));
  const ApplyResult applied = WriteNow({std::move(change)});
  if (applied.status == ApplyStatus::Conflict) return std::nullopt;
  if (applied.status == ApplyStatus::Failed) {
    return Refuse(AdminStatus::StoreFailed, {}, applied.error);
  }
  users[user][identifier] = after;
  TakeVersions(applied);
  return AdminResult{AdminStatus::Ok, {}, {}, entry, added};
}

AdminResult Household::SetCredit(const Actor& actor, const QString& user, const QString& identifier,
                                 std::int64_t minutes, const QString& id, const QString& reason) {
  if (const auto problem = CreditProblem(minutes)) {
    return Refuse(AdminStatus::BadValue, QStringLiteral("minutes"), *problem);
  }
  CreditChange change{actor, user, identifier, id, reason, {}, {}};
  change.digest = DigestOf(change, minutes, {});
  change.creditAfter = [minutes](std::int64_t) { return minutes; };
  return impl_->ChangeCredit(change);
}

AdminResult Household::AddCredit(const Actor& actor, const QString& user, const QString& identifier,
                                 std::int64_t minutes, const QString& id, const QString& reason) {
  if (minutes == 0 || minutes < -kMostMinutes || minutes > kMostMinutes) {
    return Refuse(
        AdminStatus::BadValue, QStringLiteral("minutes"),
        QStringLiteral("must be whole minutes from -%1 to %1, but not 0").arg(kMostMinutes));
  }
  CreditChange change{actor, user, identifier, id, reason, {}, {}};
  change.digest = DigestOf(change, minutes, QStringLiteral("added"));
  change.creditAfter = [minutes](std::int64_t before) {
    return std::clamp<std::int64_t>(before + minutes, 0, kMostMinutes);
  };
  return impl_->ChangeCredit(change);
}

std::optional<std::vector<LedgerRow>> Household::Ledger(std::int64_t after, const QString& user,
                                                        const QString& identifier,
                                                        int limit) const {
  std::vector<LedgerRow> rows;
  QString error;
  const auto read = [&](Store& store) {
    rows = store.Ledger(after, user, identifier, std::clamp(limit, 0, kMaxLedgerRows),
                        impl_->restoring != nullptr);
  };
  if (impl_->keeper.Call(read, &error)) return rows;
  impl_->Log(QStringLiteral("the ledger cannot be read: ") + error);
  return std::nullopt;
}

}  // namespace vardell::server
