// Two real Servers that share one PostgreSQL, each on a machine of its own, with agents on both.
#include "tests/server/CrashLoad.h"
#include "tests/support/PostgresCluster.h"

namespace vardell::server {
namespace {

// Another machine: a network namespace, joined to this one by 10.99.0.1 (here) and 10.99.0.2.
class OtherMachine {
 public:
  explicit OtherMachine(const std::string& log)
      : holder_({"unshare", "-n", "sh", "-c",
                 "echo 20000 40000 > /proc/sys/net/ipv4/ip_local_port_range && ip link set lo up "
                 "&& echo there; exec sleep infinity"},
                {.output = log}) {
    if (!holder_.WaitForOutput(QStringLiteral("there"))) return;
    const std::string pid = std::to_string(holder_.pid());
    isThere_ =
        test::Run({"sh", "-c",
                   "ip link add near type veth peer name far netns " + pid +
                       " && ip addr add 10.99.0.1/24 dev near && ip link set near up && nsenter "
                       "-n -t " +
                       pid + " sh -c 'ip addr add 10.99.0.2/24 dev far && ip link set far up'"},
                  {})
            .status == 0;
  }
  bool IsThere() const { return isThere_; }
  std::string Network() const { return "/proc/" + std::to_string(holder_.pid()) + "/ns/net"; }

 private:
  Program holder_;
  bool isThere_ = false;
};

class SeveralServersTest : public CrashFixture {
 protected:
  void SetUp() override {
    CrashFixture::SetUp();
    if (IsSkipped()) return;
    machine_.emplace(Path("machine"));
    if (!machine_->IsThere()) GTEST_SKIP() << "needs a pair of network interfaces";
    cluster_.emplace();
    const std::string store = cluster_->Uri(QStringLiteral("postgres")).toStdString();
    for (const char* name : {"a", "b"}) ASSERT_EQ(mkdir(Path(name).c_str(), 0755), 0);
    near_.emplace(RealServer::Options{Path("a"), store, 45000});
    far_.emplace(
        RealServer::Options{Path("b"), store, 45001, {"nsenter", "--net=" + machine_->Network()}});
    ASSERT_TRUE(near_->Start());
    ASSERT_TRUE(far_->Start());
    for (const QString& name : applications_) ASSERT_EQ(near_->MakeLimit(name).status, 201);
    for (const QString& name : applications_) {
      ASSERT_TRUE(WaitUntil([&] { return Credit(*far_, name) == kFirstCredit; }));
    }
  }
  static std::int64_t Credit(const RealServer& server, const QString& identifier) {
    return server.Ask("GET", LimitPath(identifier))
        .body.value(QLatin1String("credit"))
        .toInteger(-1);
  }
  const QStringList applications_ = Load::Applications(4);
  std::optional<OtherMachine> machine_;
  std::optional<PostgresCluster> cluster_;
  std::optional<RealServer> near_;
  std::optional<RealServer> far_;
};

// One account is used on both at the same time: each pays its own minutes. The one that agents of
// the other machine were with dies in the end, and they go on with the one that is left.
TEST_F(SeveralServersTest, CreditIsRightWhileBothAreKilledAndOneIsLeft) {
  Load load;
  load.AddAgents(applications_, {{45000}});
  load.AddAgents(applications_, {{45001}, {45000, "10.99.0.1"}}, machine_->Network());
  load.AddAdministrator(*near_, applications_, QStringLiteral("near"));
  load.AddAdministrator(*far_, applications_, QStringLiteral("far"));
  ASSERT_TRUE(load.Goes(5));
  const int kills = CampaignOr("VARDELL_TEST_KILLS", 4);
  for (int i = 0; i < kills && !HasFailure(); ++i) {
    RealServer& server = Random(0, 1) == 0 ? *near_ : *far_;
    Pause(150);
    server.Kill();
    Pause(50);
    ASSERT_TRUE(server.Start());
    ASSERT_TRUE(load.Goes());
    ASSERT_TRUE(WaitUntil([&] { return near_->HasStoredAll() && far_->HasStoredAll(); }));
    load.Check(*near_, Load::Seen::MayDiffer);
  }
  far_->Kill();
  ASSERT_TRUE(load.Goes(5)) << "agents of the other machine do not go on";
  load.Check(*near_, Load::Seen::MayDiffer);
  ASSERT_TRUE(far_->Start());
  load.Stop();
  ASSERT_TRUE(WaitUntil([&] { return near_->HasStoredAll() && far_->HasStoredAll(); }));
  load.CheckEnd(*near_);
  for (const QString& name : applications_) {
    EXPECT_TRUE(WaitUntil([&] { return Credit(*far_, name) == Credit(*near_, name); }));
  }
  std::printf(
      "%d kills; %llu reports and %zu adjustments acknowledged, %llu lost, %llu doubled; "
      "longest wait %lld ms\n",
      kills + 1, static_cast<unsigned long long>(load.Acknowledged()), load.Adjustments(),
      static_cast<unsigned long long>(load.lost), static_cast<unsigned long long>(load.doubled),
      static_cast<long long>(load.LongestWait().count()));
}

}  // namespace
}  // namespace vardell::server
