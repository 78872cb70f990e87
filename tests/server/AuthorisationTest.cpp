#include "server/Authorisation.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QFile>
#include <QTemporaryDir>

namespace vardell::server {
namespace {

Requester With(Role role, const char* name) {
  return {{1234, QStringLiteral("uid 1234")}, QString::fromLatin1(name), role};
}

TEST(Authorisation, RolesAndVerbs) {
  const struct {
    const char* what;
    Role role;
    const char* name;
    Verb verb;
    const char* user;
    bool allowed;
  } kRows[] = {
      {"root changes limits", Role::Admin, "root", Verb::ChangeLimits, "anna", true},
      {"root reads what concerns everybody", Role::Admin, "root", Verb::Read, "", true},
      {"the group changes credit", Role::TopUp, "mum", Verb::ChangeCredit, "anna", true},
      {"the group changes no limits", Role::TopUp, "mum", Verb::ChangeLimits, "anna", false},
      {"a user reads what is theirs", Role::Read, "anna", Verb::Read, "anna", true},
      {"a user reads nobody else's", Role::Read, "anna", Verb::Read, "bert", false},
      {"names are exact", Role::Read, "anna", Verb::Read, "Anna", false},
      {"a user gives no credit, not even to themself", Role::Read, "anna", Verb::ChangeCredit,
       "anna", false},
      {"a user changes no limits of their own", Role::Read, "anna", Verb::ChangeLimits, "anna",
       false},
      {"a uid without a name is nobody", Role::Read, "", Verb::Read, "", false},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(Authorise(With(row.role, row.name), row.verb, QString::fromLatin1(row.user)),
              row.allowed)
        << row.what;
  }
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
bool HideAccountsBehind(const QString& group, const QString& passwd) {
  const uid_t uid = geteuid();
  if (unshare(CLONE_NEWNS | (uid == 0 ? 0 : CLONE_NEWUSER)) != 0) return false;
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount(QFile::encodeName(group).constData(), "/etc/group", nullptr, MS_BIND, nullptr) ==
             0 &&
         mount(QFile::encodeName(passwd).constData(), "/etc/passwd", nullptr, MS_BIND, nullptr) ==
             0;
}

void Write(const QString& path, const QByteArray& text) {
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.write(text);
}

struct MemberRow {
  const char* what;
  uid_t uid;
  gid_t gid;
  Role expected;
};

const MemberRow kMembers[] = {
    {"supplementary group", 4001, 4001, Role::TopUp},
    {"primary group", 4002, 4002, Role::TopUp},
    {"no member", 4003, 4003, Role::Read},
    {"runs with the group", 4003, 900, Role::TopUp},
    {"unknown to the database, runs with the group", 4999, 900, Role::TopUp},
    {"unknown to the database", 4999, 4999, Role::Read},
};

// The first row that is wrong, from 1; 0 where all are right.
int FirstWrongMember() {
  for (std::size_t i = 0; i < std::size(kMembers); ++i) {
    if (LookUpRequester(kMembers[i].uid, kMembers[i].gid).role != kMembers[i].expected)
      return static_cast<int>(i) + 1;
  }
  return 0;
}

TEST(Authorisation, MembersOfTheGroupTopUp) {
  const QTemporaryDir folder;
  const QString group = folder.filePath(QStringLiteral("group"));
  const QString passwd = folder.filePath(QStringLiteral("passwd"));
  Write(group, "root:x:0:\nvardell:x:900:someone,mum\nmum:x:4001:\n");
  Write(passwd,
        "root:x:0:0::/:/bin/false\nmum:x:4001:4001::/:/bin/false\ndad:x:4002:900::/:/bin/false\n"
        "anna:x:4003:4003::/:/bin/false\n");
  constexpr int kNoNamespace = 100;
  const pid_t child = fork();
  if (child == 0) _exit(HideAccountsBehind(group, passwd) ? FirstWrongMember() : kNoNamespace);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  const int wrong = WEXITSTATUS(status);
  ASSERT_NE(wrong, kNoNamespace) << "no mount namespace can be made here";
  EXPECT_EQ(wrong, 0) << kMembers[wrong > 0 ? wrong - 1 : 0].what;
}

}  // namespace
}  // namespace vardell::server
