// Who may do what on the control socket. Root may do everything; members of the group "vardell" may
// read everything and change credit; every user may read what concerns that user.
#pragma once

#include <sys/types.h>

#include <QString>
#include <cstdint>

#include "server/Household.h"

namespace vardell::server {

inline constexpr char kTopUpGroup[] = "vardell";

enum class Role { Read, TopUp, Admin };

enum class Verb {
  Read,
  ChangeCredit,
  ChangeLimits,
  BackUp,  // everything at once, out and in
};

struct Requester {
  Actor actor;       // as the ledger has it
  QString userName;  // empty where the account database does not know the uid
  Role role = Role::Read;
};

// What the account database says of the peer of a Unix socket. A member of the group is who has it
// as the primary or as a supplementary group there, or runs with it. May wait for that database.
Requester LookUpRequester(uid_t uid, gid_t gid, const char* topUpGroup = kTopUpGroup);

// `user`: whom the request concerns; empty where it concerns everybody.
[[nodiscard]] bool Authorise(const Requester& requester, Verb verb, const QString& user);

}  // namespace vardell::server
