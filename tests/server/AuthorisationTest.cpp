#include "server/Authorisation.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QTemporaryDir>

#include "Common Sources/FileSystem.h"

namespace vardell::server {
namespace {

// What each role may is in ControlApiTest's table of resources.
TEST(Authorisation, NamesAreExactAndAUidWithoutANameIsNobody) {
  const auto reads = [](const char* name, const char* user) {
    const Requester requester{{1234, {}}, QString::fromLatin1(name), Role::Read};
    return Authorise(requester, Verb::Read, QString::fromLatin1(user));
  };
  EXPECT_TRUE(reads("anna", "anna"));
  EXPECT_FALSE(reads("anna", "Anna"));
  EXPECT_FALSE(reads("", ""));
}

TEST(Authorisation, TheAccountDatabaseSaysWhoItIs) {
  EXPECT_EQ(LookUpRequester(0, 0).role, Role::Admin);
  EXPECT_EQ(LookUpRequester(0, 0).actor.name, QStringLiteral("uid 0 (root)"));
  const Requester unknown = LookUpRequester(3999999, 3999999);
  EXPECT_EQ(unknown.role, Role::Read);
  EXPECT_EQ(unknown.actor.name, QStringLiteral("uid 3999999"));
  EXPECT_TRUE(unknown.userName.isEmpty());
}

// In a mount namespace of its own: /etc/group and /etc/passwd are ours there.
bool HideAccountsBehind(const QByteArray& group, const QByteArray& passwd) {
  const auto bind = [](const QByteArray& over, const char* what) {
    return mount(over.constData(), what, nullptr, MS_BIND, nullptr) == 0;
  };
  const uid_t uid = geteuid();
  if (unshare(CLONE_NEWNS | (uid == 0 ? 0 : CLONE_NEWUSER)) != 0) return false;
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         bind(group, "/etc/group") && bind(passwd, "/etc/passwd");
}

const struct {
  const char* what;
  uid_t uid;
  gid_t gid;
  Role expected;
} kMembers[] = {
    {"supplementary group", 4001, 4001, Role::TopUp},
    {"primary group", 4002, 4002, Role::TopUp},
    {"no member", 4003, 4003, Role::Read},
    {"runs with the group", 4003, 900, Role::TopUp},
    {"unknown to the database, runs with the group", 4999, 900, Role::TopUp},
    {"unknown to the database", 4999, 4999, Role::Read},
};

TEST(Authorisation, MembersOfTheGroupTopUp) {
  const QTemporaryDir folder;
  const QByteArray group = folder.filePath(QStringLiteral("group")).toUtf8();
  const QByteArray passwd = folder.filePath(QStringLiteral("passwd")).toUtf8();
  (void)StoreFile(group, "root:x:0:\nvardell:x:900:someone,mum\nmum:x:4001:\n");
  (void)StoreFile(passwd,
                  "root:x:0:0::/:/bin/false\nmum:x:4001:4001::/:/bin/false\n"
                  "dad:x:4002:900::/:/bin/false\nanna:x:4003:4003::/:/bin/false\n");
  constexpr int kNoNamespace = 100;
  const pid_t child = fork();
  if (child == 0) {
    if (!HideAccountsBehind(group, passwd)) _exit(kNoNamespace);
    for (const auto& row : kMembers) {
      if (LookUpRequester(row.uid, row.gid).role != row.expected)
        _exit(static_cast<int>(&row - kMembers) + 1);
    }
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  const int wrong = WEXITSTATUS(status);
  ASSERT_NE(wrong, kNoNamespace) << "no mount namespace can be made here";
  EXPECT_EQ(wrong, 0) << kMembers[wrong > 0 ? wrong - 1 : 0].what;
}

}  // namespace
}  // namespace vardell::server
