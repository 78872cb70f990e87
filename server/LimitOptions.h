// What administrators can choose for a limit beyond its keys; agents know nothing of it. Plain
// values.
#pragma once

#include <optional>

#include "server/Schedules.h"
#include "server/TopUps.h"

namespace vardell::server {

// What a minute costs in which it is used on several hosts.
enum class Parallel {
  Sum,    // a minute for each of them
  Union,  // one minute
};

// Whose the credit is.
enum class Scope {
  User,        // the user's, wherever they use it
  UserAtHost,  // of an account that several people share: each host's own
};

struct LimitOptions : TopUpOptions {
  bool unlimited = false;  // use is booked, and costs nothing
  Parallel parallel = Parallel::Sum;
  Scope scope = Scope::User;
  std::optional<Schedule> schedule;  // hours in which it may be used; absent: all

  bool operator==(const LimitOptions&) const = default;
};

}  // namespace vardell::server
