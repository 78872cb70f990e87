#include "server/Authorisation.h"

#include "server/HostAccounts.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <vector>

namespace vardell::server {
namespace {

constexpr std::size_t kRecordBytes = 16384;
constexpr std::size_t kMaxRecordBytes = 1u << 20;
constexpr int kMaxGroups = 65536;

struct Account {
  std::string name;
  gid_t primaryGroup = 0;
};

// The database says ERANGE where a record does not fit.
template <typename Lookup>
bool WithGrowingBuffer(Lookup lookup) {
  for (std::size_t size = kRecordBytes; size <= kMaxRecordBytes; size *= 2) {
    std::vector<char> buffer(size);
    const int error = lookup(buffer.data(), buffer.size());
    if (error != ERANGE) return error == 0;
  }
  return false;
}

std::optional<Account> AccountOf(uid_t uid) {
  std::optional<Account> account;
  (void)WithGrowingBuffer([&](char* buffer, std::size_t size) {
    passwd record{};
    passwd* found = nullptr;
    const int error = getpwuid_r(uid, &record, buffer, size, &found);
    if (found) account = Account{found->pw_name, found->pw_gid};
    return error;
  });
  return account;
}

std::optional<gid_t> GroupNamed(const char* name) {
  std::optional<gid_t> gid;
  (void)WithGrowingBuffer([&](char* buffer, std::size_t size) {
    group record{};
    group* found = nullptr;
    const int error = getgrnam_r(name, &record, buffer, size, &found);
    if (found) gid = found->gr_gid;
    return error;
  });
  return gid;
}

std::vector<gid_t> GroupsOf(const Account& account) {
  int count = 64;
  for (;;) {
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    const int room = count;
    if (getgrouplist(account.name.c_str(), account.primaryGroup, groups.data(), &count) >= 0) {
      groups.resize(static_cast<std::size_t>(count));
      return groups;
    }
    if (count <= room || count > kMaxGroups) return {};
  }
}

bool IsMember(const std::optional<Account>& account, gid_t runningGroup, const char* group) {
  const std::optional<gid_t> wanted = GroupNamed(group);
  if (!wanted) return false;
  if (runningGroup == *wanted) return true;
  if (!account) return false;
  const std::vector<gid_t> groups = GroupsOf(*account);
  return std::find(groups.begin(), groups.end(), *wanted) != groups.end();
}

}  // namespace

Requester LookUpRequester(uid_t uid, gid_t gid, const char* topUpGroup) {
  const std::optional<Account> account = AccountOf(uid);
  Requester requester;
  if (account) requester.userName = QString::fromStdString(account->name);
  requester.actor.uid = uid;
  requester.actor.name =
      account ? QStringLiteral("uid %1 (%2)").arg(QString::number(uid), requester.userName)
              : QStringLiteral("uid %1").arg(uid);
  if (uid == 0) {
    requester.role = Role::Admin;
  } else if (IsMember(account, gid, topUpGroup)) {
    requester.role = Role::TopUp;
  }
  return requester;
}

bool Authorise(const Requester& requester, Verb verb, const QString& user) {
  if (requester.role == Role::Admin) return true;
  if (verb == Verb::ChangeLimits || verb == Verb::BackUp) return false;
  if (requester.role == Role::TopUp) return true;
  if (verb != Verb::Read || requester.userName.isEmpty()) return false;
  return user == requester.userName || UserOfHostAccount(user) == requester.userName;
}

}  // namespace vardell::server
