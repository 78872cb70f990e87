#include "platform/linux/Rights.h"

#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vardell {
namespace {

bool IsUser(uid_t user) {
  uid_t real = 0, effective = 0, saved = 0;
  return getresuid(&real, &effective, &saved) == 0 && real == user && effective == user &&
         saved == user;
}

bool IsGroup(gid_t group) {
  gid_t real = 0, effective = 0, saved = 0;
  return getresgid(&real, &effective, &saved) == 0 && real == group && effective == group &&
         saved == group && getgroups(0, nullptr) == 0;
}

bool HasNoCapability() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, sets) != 0) return false;
  for (const __user_cap_data_struct& set : sets) {
    if ((set.effective | set.permitted | set.inheritable) != 0) return false;
  }
  return true;
}

bool CanComeBack(gid_t group) {
  return setuid(0) == 0 || seteuid(0) == 0 || (group != 0 && setgid(0) == 0) ||
         setgroups(0, nullptr) == 0;
}

}  // namespace

bool BecomeUserForGood(uid_t user, gid_t group) {
  if (user == 0) return false;
  if (setgroups(0, nullptr) != 0 || setresgid(group, group, group) != 0 ||
      setresuid(user, user, user) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    return false;
  }
  // The system may be set up to let that user into processes that have become theirs.
  if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) return false;
  return IsUser(user) && IsGroup(group) && HasNoCapability() && !CanComeBack(group) &&
         IsUser(user) && IsGroup(group);
}

}  // namespace vardell
