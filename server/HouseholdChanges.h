// What administrators' changes have in common: how they are refused, booked and audited.
#pragma once

#include <QString>
#include <optional>

#include "server/HouseholdImpl.h"
#include "server/LimitsKeys.h"

namespace vardell::server {

AdminResult Refuse(AdminStatus status, const QString& field, const QString& message);
std::optional<AdminResult> CheckNames(const QString& user, const QString& identifier);

// `before` with the change; `isNew`: whatever it says, the revision counts.
Account Applied(const Account& before, bool isNew, const LimitsChange& change);
// The rows of limits and credit. `entry` is the account's.
StoreChange Changed(const LimitsEntry& entry, const Account& account);
StoreChange Removed(const LimitsEntry& entry);

// An account as the audit shows it: JSON.
QString AuditText(const Account& account);
AuditRow Audited(const Actor& actor, const QDateTime& now, const char* what,
                 const LimitsEntry& entry, const QString& before, const QString& after);

// The difference between the credit of `entry` and the one before.
LedgerRow AdminRow(const Actor& actor, const QDateTime& now, const LimitsEntry& entry,
                   std::int64_t creditBefore, const QString& reason);

}  // namespace vardell::server
