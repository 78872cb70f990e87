// What a spool has kept, for a store of one Server that may be another than it was then: a backup
// that was put in its place, above all. What agents used is taken from the credit that is there, so
// that the ledger's sum stays the credit. Pure.
#pragma once

#include <vector>

#include "server/PostgresBatch.h"

namespace vardell::server {

StoredAccounts AccountsOf(const StoreContents& contents);

// The same use, of agents, without lanes. `accounts` are as they are before, and become what they
// are afterwards.
std::vector<StoreChange> Rebased(const std::vector<StoreChange>& changes, StoredAccounts* accounts);

}  // namespace vardell::server
