// A household that lives at random, by a seed, over a real store, and the model of what its Server
// must do. VARDELL_MODEL_SEED: the first seed; VARDELL_MODEL_SEEDS: how many.
#include <QDateTime>

#include "tests/server/HouseholdSimulation.h"
#include "tests/server/StoreFixture.h"

namespace vardell::test {
namespace {

constexpr std::uint64_t kUsualSeeds = 12;

const QString kIdentifiers[] = {QStringLiteral("com.apple.loginwindow"),
                                QStringLiteral("org.example.game"), QStringLiteral("chat")};
const QString kUsers[] = {QStringLiteral("anna"), QStringLiteral("ben"), QStringLiteral("zoe")};

struct Place {
  const char* zone;
  const char* begin;  // shortly before something happens to its clocks, where it does
};
constexpr Place kPlaces[] = {
    {"Europe/Madrid", "2024-03-30T12:00"},       {"Europe/Madrid", "2024-10-26T12:00"},
    {"America/New_York", "2024-03-09T12:00"},    {"America/New_York", "2024-11-02T12:00"},
    {"Australia/Lord_Howe", "2024-04-06T12:00"}, {"Australia/Lord_Howe", "2024-10-05T12:00"},
    {"Pacific/Apia", "2011-12-28T12:00"},        {"Asia/Kolkata", "2024-02-28T12:00"},
};

// An application that an agent watches.
struct App {
  QString identifier;
  std::int64_t credit = 0;
  bool isLastMinute = false;
  std::int64_t nextAt = 0;  // boot time of its next minute
};

struct Agent {
  Peer peer;
  std::vector<App> apps;
};

class Life : Dice {
 public:
  Life(std::uint64_t seed, const Place& place, const QString& uri)
      : Dice(seed), home_(QTimeZone(place.zone), InstantOf(place.begin, place.zone), uri) {
    const struct {
      const char* user;
      const char* host;
      std::uint32_t uid;  // 0: of another machine
    } agents[] = {{"anna", "local", 1001},    {"anna", "local", 1001},  {"ben", "local", 1002},
                  {"zoe", "local", 1001},     {"anna", "192.0.2.7", 0}, {"ben", "192.0.2.7", 0},
                  {"anna", "2001:db8::8", 0}, {"zoe", "2001:db8::8", 0}};
    for (const auto& one : agents) {
      for (std::size_t server = 0; server < (home_.IsShared() ? 2 : 1); ++server) {
        Agent& agent = agents_.emplace_back();
        agent.peer.server = server;
        agent.peer.user = QLatin1String(one.user);
        agent.peer.connection = {++connections_, QLatin1String(one.host), {}};
        if (one.uid != 0) agent.peer.connection.peerUid = one.uid;
      }
    }
    for (int i = 0; i < 4; ++i) ChangeSomeLimits();
  }

  void Live(int steps) {
    for (step_ = 1; step_ <= steps && home_.Problem().empty(); ++step_) {
      Step();
      if (Below(3) != 0) home_.TopUp();
      if (step_ % 25 == 0 || step_ == steps) home_.CompareAll();
    }
  }
  int StepNumber() const { return step_; }
  const Simulation& Home() const { return home_; }

 private:
  Agent& AnyAgent() {
    for (;;) {
      Agent& agent = Any(agents_);
      if (agent.peer.server == home_.Turn()) return agent;
    }
  }
  LimitName AnyName() { return {Any(kUsers), Any(kIdentifiers)}; }
  LimitName AnyNameOrHosts() {
    LimitName name = AnyName();
    const QString host = Any(agents_).peer.connection.host;
    if (Once(4)) name.first += QLatin1Char('@') + host;
    return name;
  }

  // --- Agents.

  void Begin(Agent& agent, App& app) {
    home_.Start(agent.peer, app.identifier);
    const auto credit = home_.Fetch(agent.peer, app.identifier);
    app.credit = credit.value_or(-1);
    app.isLastMinute = false;
    if (app.credit == 0) app.credit = 1;
    app.nextAt = home_.Boot() + kSecond;
  }
  void Launch() {
    Agent& agent = AnyAgent();
    App app;
    app.identifier = Any(kIdentifiers);
    Begin(agent, app);
    if (app.credit >= 0) agent.apps.push_back(app);
  }
  void Quit() {
    Agent& agent = AnyAgent();
    if (!agent.apps.empty()) agent.apps.pop_back();
  }
  std::int64_t Absurd(std::int64_t claimed) {
    const std::int64_t values[] = {kMost, -kMost - 1,  kSpent,  kSpent - 1,   0,         -1,
                                   1,     claimed + 1, claimed, claimed - 50, Below(200)};
    return Any(values);
  }
  // What the agent does at the minute of an application; true where it watches it no longer.
  bool LiveMinute(Agent& agent, App& app) {
    const bool isEnd = app.credit == 0 || app.credit == kSpent;
    app.isLastMinute = app.isLastMinute || app.credit == 1 || app.credit == kSpent;
    app.credit = app.credit == kSpent ? 0 : app.credit - 1;
    if (Once(60)) (void)home_.Fetch(agent.peer, app.identifier);  // the wrong way round
    const bool isLost = Once(25);
    const std::int64_t claimed = Once(25) ? Absurd(app.credit) : app.credit;
    if (!isLost) home_.Report(agent.peer, app.identifier, claimed);
    if (!isLost && Once(40)) home_.Report(agent.peer, app.identifier, app.credit);
    const auto answer = home_.Fetch(agent.peer, app.identifier);
    if (!answer) return true;
    app.credit = *answer;
    if (app.credit == 0 && !app.isLastMinute) app.credit = 1;
    app.nextAt = std::max(app.nextAt + kMinute, home_.Boot() + kSecond);
    return isEnd;
  }
  bool HasMinute() {
    Agent* next = nullptr;
    std::size_t index = 0;
    for (Agent& agent : agents_) {
      if (agent.peer.server != home_.Turn()) continue;
      for (std::size_t i = 0; i < agent.apps.size(); ++i) {
        if (next && agent.apps[i].nextAt >= next->apps[index].nextAt) continue;
        next = &agent;
        index = i;
      }
    }
    if (!next) return false;
    App& app = next->apps[index];
    home_.Pass(std::max<std::int64_t>(0, app.nextAt - home_.Boot()));
    if (Once(4)) home_.Pass(Below(4 * kSecond));
    if (LiveMinute(*next, app)) next->apps.erase(next->apps.begin() + static_cast<int>(index));
    return true;
  }
  void Minutes(std::int64_t count) {
    while (count-- > 0 && HasMinute()) continue;
  }
  // As an agent does after a loss: minutes that were used without an answer are claimed, and all
  // is announced anew.
  void ConnectAgain(Agent& agent, std::int64_t away) {
    home_.Close(agent.peer);
    agent.peer.connection.id = ++connections_;
    for (App& app : agent.apps) {
      if (away > kMinute && Once(2)) {
        const auto credit = home_.Fetch(agent.peer, app.identifier);
        if (credit && *credit != kSpent) {
          const std::int64_t left = *credit - away / kMinute - 1;
          home_.Report(agent.peer, app.identifier, std::max<std::int64_t>(0, left));
        }
      }
      Begin(agent, app);
    }
    std::erase_if(agent.apps, [](const App& app) { return app.credit < 0; });
  }
  void ConnectAllAgain(std::int64_t away) {
    for (Agent& agent : agents_) {
      if (agent.peer.server == home_.Turn()) ConnectAgain(agent, away);
    }
  }
  void Misbehave() {
    Agent& agent = AnyAgent();
    const QString identifier = Any(kIdentifiers);
    for (std::int64_t times = 1 + Below(4); times > 0; --times) {
      if (Once(3)) home_.Start(agent.peer, identifier);
      if (Once(2)) (void)home_.Fetch(agent.peer, identifier);
      if (!Once(3)) home_.Report(agent.peer, identifier, Absurd(Below(20)));
      home_.Pass(Below(2) * Below(70 * kSecond));
    }
  }

  // --- Servers and clocks.

  void EndApps(bool ofThisMachine) {
    for (Agent& agent : agents_) {
      const bool isMeant = agent.peer.connection.peerUid || !ofThisMachine;
      if (agent.peer.server == home_.Turn() && isMeant) agent.apps.clear();
    }
  }
  void Restart() {
    Once(3) && !home_.IsShared() ? home_.CutPower() : home_.Stop();
    const std::int64_t away = Below(Once(2) ? 5 * kSecond : 10 * kMinute);
    home_.Pass(away);
    home_.Begin();
    ConnectAllAgain(away);
  }
  void Reboot() {
    home_.Stop();
    home_.Pass(Below(4) * Below(6 * kHour));
    home_.Reboot(kSecond * Below(40));
    EndApps(true);
    // 1970 where the battery is empty.
    const std::int64_t before = std::max<std::int64_t>(0, home_.Wall() - Below(kDay));
    const std::int64_t to = Once(2) ? Below(kDay) : before;
    if (Once(3)) WrongBy(wrongBy_ + to - home_.Wall(), false);
    home_.Begin();
    ConnectAllAgain(kMinute);
  }
  void Sleep() {
    if (Once(2)) EndApps(false);
    home_.Pass(Once(4) ? Below(5 * kDay) : Below(14 * kHour));
  }
  void SetClock() {
    const std::int64_t reach[] = {10 * kMinute, 3 * kHour, 2 * kDay, 40 * kDay, 400 * kDay};
    const std::int64_t most = Any(reach);
    const std::int64_t jump = wrongBy_ != 0 && !Once(3) ? -wrongBy_ : Below(2 * most) - most;
    if (std::abs(jump) <= 3 * kMinute || home_.Wall() + jump <= kDay) return;
    WrongBy(wrongBy_ + jump, true);
  }
  void WrongBy(std::int64_t wrongBy, bool isKnownToBeRight) {
    home_.SetWall(home_.Wall() + wrongBy - std::exchange(wrongBy_, wrongBy), isKnownToBeRight);
  }
  void GiveTurn() {
    const std::size_t other = 1 - home_.Turn();
    home_.TakeTurn(other);
    if (!Once(2)) return;
    // The agents of the one that died go over to the other one.
    for (std::size_t i = 0; i < agents_.size(); ++i) {
      Agent& agent = agents_[i];
      if (agent.peer.server == other || agent.apps.empty()) continue;
      home_.Close(agent.peer);
      agents_[i ^ 1].apps = std::exchange(agent.apps, {});
    }
    ConnectAllAgain(0);
  }
  void FillDisk() {
    home_.WithoutDisk([this] {
      Minutes(1 + Below(6));
      if (Once(12)) home_.Adjust(AnyName(), true, 5, QStringLiteral("refused"));
      Launch();
    });
  }

  // --- Administrators.

  std::int64_t AnyCredit() {
    const std::int64_t any[] = {Below(12), Below(200), kSpent + 1 + Below(3), kMost - Below(3)};
    const std::int64_t credits[] = {0, 1, 2, 5, any[0], kSpent, kSpent - 1, Any(any), Any(any)};
    return Any(credits);
  }
  void ChangeSomeLimits() { ChangeLimits(AnyName()); }
  void ChangeLimits(const LimitName& name) {
    const ModelAccount* before = home_.Rules().Find(name);
    ModelKeys keys = before ? before->keys : ModelKeys();
    ModelOptions options = before ? before->options : ModelOptions();
    std::optional<std::int64_t> credit;
    if (!before || Once(3)) credit = AnyCredit();
    if (Once(5)) keys.enabled = !keys.enabled;
    if (Once(2)) {
      const std::int64_t values[] = {0, 1, 3, 60, kSpent, 40'000'000};
      keys.value = Any(values);
      keys.unit = Once(3) ? 60 : 1;
      keys.weekEndValue = Below(4);
      const std::int64_t units[] = {0, 1, 60};
      keys.weekEndUnit = Any(units);
    }
    if (Once(2)) {
      const std::int64_t quarters = home_.Wall() / (15 * kMinute);
      const std::int64_t aheads[] = {Below(96), Below(96), -Below(300), Below(3000)};
      keys.next = Once(8) ? 0 : (quarters + Any(aheads)) * 15 * kMinute;
      keys.next = std::max<std::int64_t>(keys.next, keys.next == 0 ? 0 : 978'307'200'000 + kDay);
    }
    if (Once(4)) {
      options.rollOver = Once(2);
      options.cap.reset();
      const std::int64_t caps[] = {0, 10, 500, kSpent};
      if (Once(2)) options.cap = Any(caps);
    }
    if (Once(6)) options.unlimited = !options.unlimited;
    if (Once(12)) options.perHost = !options.perHost;
    options.unionOfHosts = name.second == kIdentifiers[2];
    home_.Change(name, keys, options, credit);
  }
  void Adjust() {
    const std::int64_t deltas[] = {1, -1, 5, -5, 1 + Below(60), kSpent, -kMost, kMost};
    const LimitName name = AnyNameOrHosts();
    const QString id = QStringLiteral("id%1").arg(Once(3) ? Below(8) : 1000 + step_);
    const bool isAddition = Once(2);
    home_.Adjust(name, isAddition, isAddition ? Any(deltas) : AnyCredit(), id);
  }
  void Restore() {
    const bool isFinished = !Once(4);
    home_.Restore([this] { Minutes(Below(3)); }, isFinished);
    if (!isFinished) Restart();
  }

  void Step() {
    const std::size_t alone = home_.IsShared() ? 0 : 1;
    const struct {
      std::size_t weight;
      void (Life::*action)();
    } actions[] = {
        {6, &Life::Quit},
        {6, &Life::Misbehave},
        {4, &Life::Adjust},
        {3, &Life::ChangeSomeLimits},
        {2, &Life::Restart},
        {2, &Life::Sleep},
        {alone, &Life::Reboot},
        {1, &Life::SetClock},
        {8 * (1 - alone), &Life::GiveTurn},
        {alone, &Life::FillDisk},
        {1, &Life::Drop},
        {2, &Life::Remove},
        {1, &Life::KeepBackup},
        {1, &Life::Restore},
        {1, &Life::UseOldRevision},
        {10, &Life::Launch},
    };
    if (!Once(4) && HasMinute()) return;
    home_.Pass(Below(25 * kSecond));
    std::vector<void (Life::*)()> lots;
    for (const auto& one : actions) lots.insert(lots.end(), one.weight, one.action);
    (this->*Any(lots))();
  }
  void Drop() { ConnectAgain(AnyAgent(), 0); }
  // Agents that watch it need not notice.
  void Remove() {
    const LimitName name = AnyNameOrHosts();
    home_.Remove(name);
    if (Once(2) && !name.first.contains(QLatin1Char('@'))) ChangeLimits(name);
  }
  void KeepBackup() { home_.KeepBackup(); }
  void UseOldRevision() { home_.ChangeWithOldRevision(AnyName()); }

  Simulation home_;
  std::uint64_t connections_ = 0;
  std::vector<Agent> agents_;
  std::int64_t wrongBy_ = 0;  // the wall clock
  int step_ = 0;
};

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
  return qEnvironmentVariableIsSet(name) ? qEnvironmentVariable(name).toULongLong() : otherwise;
}

struct Seen {
  std::map<QString, int> rows;  // of the ledger, by source
  int spentAnswers = 0;
};

void LiveThrough(std::uint64_t seed, int steps, const QString& uri, Seen* seen) {
  Life life(seed, kPlaces[seed % std::size(kPlaces)], uri);
  life.Live(steps);
  const Simulation& home = life.Home();
  for (const auto& [source, rows] : home.RowsBySource()) seen->rows[source] += rows;
  seen->spentAnswers += home.SpentAnswers();
  EXPECT_EQ(home.Problem(), "") << "in step " << life.StepNumber()
                                << " of VARDELL_MODEL_SEED=" << seed << ", after\n"
                                << home.LastEvents();
}

// Gives how many; `seeds`: where the environment does not say.
std::uint64_t LiveManyTimes(std::uint64_t seeds, int steps, const std::function<QString()>& uri,
                            Seen* seen) {
  const bool isOne = qEnvironmentVariableIsSet("VARDELL_MODEL_SEED");
  const std::uint64_t first = FromEnvironment("VARDELL_MODEL_SEED", 1);
  const std::uint64_t count = FromEnvironment("VARDELL_MODEL_SEEDS", isOne ? 1 : seeds);
  for (std::uint64_t seed = first; seed < first + count; ++seed) {
    LiveThrough(seed, steps, uri(), seen);
    if (testing::Test::HasFailure()) return 0;
  }
  return count;
}

TEST(HouseholdModelTest, AHouseholdLivesByTheRules) {
  Seen seen;
  if (LiveManyTimes(
          kUsualSeeds, 1500, [] { return QString(); }, &seen) < kUsualSeeds)
    return;
  for (const char* source : {"report", "fetch", "grace", "admin", "top-up", "restore"}) {
    EXPECT_GT(seen.rows[QLatin1String(source)], 20) << source;
  }
  EXPECT_GT(seen.spentAnswers, 20);
}

class SharedStoreModelTest : public testing::Test, protected server::StoreTestBase {};

TEST_F(SharedStoreModelTest, TwoServersThatTakeTurnsLiveByTheRules) {
  Seen seen;
  (void)LiveManyTimes(1, 150, NewStore, &seen);
}

}  // namespace
}  // namespace vardell::test
