// Giving up root's rights for good.
#pragma once

#include <sys/types.h>

namespace vardell {

// Makes this process one of that user's, with that group and no other, no capability and no way
// back, which is tried. False where any of that is not so, and for root: the process must then do
// nothing further. Its memory and descriptors, which root's may be among, stay closed to that user.
// Of the whole process: to be called while it has one thread.
[[nodiscard]] bool BecomeUserForGood(uid_t user, gid_t group);

}  // namespace vardell
