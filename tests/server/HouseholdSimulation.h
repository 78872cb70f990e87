// Households over a real store, driven together with the model of what they must do. Whatever is
// done here is done to both, and what they answer and hold is compared; the first difference is
// kept.
#pragma once

#include <QTemporaryDir>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "server/Household.h"
#include "tests/server/HouseholdModel.h"

namespace vardell::test {

// When a clock of the zone shows that time.
std::int64_t InstantOf(const char* local, const char* zone);

class Dice {
 public:
  explicit Dice(std::uint64_t seed) : random_(seed) {}

  std::int64_t Below(std::int64_t bound) {
    return static_cast<std::int64_t>(random_() % static_cast<std::uint64_t>(bound));
  }
  bool Once(std::int64_t in) { return Below(in) == 0; }
  template <typename List>
  auto& Any(List& list) {
    return list[static_cast<std::size_t>(Below(static_cast<std::int64_t>(std::size(list))))];
  }

 private:
  std::mt19937_64 random_;
};

// One connection of an agent; its Server is the number of it.
struct Peer {
  std::size_t server = 0;
  QString user;
  server::AgentConnection connection;
};

class Simulation {
 public:
  // One Server with a file, or, where `uri` is not empty, two that share a database.
  Simulation(const QTimeZone& zone, std::int64_t wall, const QString& uri = {});

  const std::string& Problem() const { return problem_; }
  std::string LastEvents() const;
  const Model& Rules() const { return model_; }
  const std::map<QString, int>& RowsBySource() const { return rowsBySource_; }
  // How many rows of the ledger for each reason.
  const std::map<QString, int>& TopUps(const LimitName& name) { return topUps_[name]; }
  int SpentAnswers() const { return spentAnswers_; }

  // --- Time.

  std::int64_t Boot() const { return model_.boot; }
  std::int64_t Wall() const { return model_.wall; }
  void Pass(std::int64_t milliseconds);
  void SetWall(std::int64_t wall, bool isKnownToBeRight);

  // --- Servers. The one whose turn it is does everything.

  std::size_t Turn() const { return turn_; }
  bool IsShared() const { return servers_.size() > 1; }
  void TakeTurn(std::size_t server);
  void Stop();
  void Begin();
  // As after a power cut: from a copy of its files, made while it runs.
  void CutPower();
  void Reboot(std::int64_t sinceBoot);
  void TopUp();
  // Agents are answered meanwhile, administrators refused.
  void WithoutDisk(const std::function<void()>& action);

  // --- Agents.

  void Start(const Peer& peer, const QString& identifier);
  void Report(const Peer& peer, const QString& identifier, std::int64_t claimed);
  // Absent for what is not watched.
  std::optional<std::int64_t> Fetch(const Peer& peer, const QString& identifier);
  void Close(const Peer& peer);

  // --- Administrators.

  void Change(const LimitName& name, const ModelKeys& keys, const ModelOptions& options,
              std::optional<std::int64_t> credit);
  void ChangeWithOldRevision(const LimitName& name);
  void Remove(const LimitName& name);
  void Adjust(const LimitName& name, bool isAddition, std::int64_t minutes, const QString& id);
  void KeepBackup();
  // `between` steps; where it is not to be finished, the Server ends after the first ones.
  void Restore(const std::function<void()>& between, bool isFinished);

  // --- Comparing. Each call above does the first for the name that it concerns.

  void Compare(const LimitName& name);
  void CompareAll();  // the ledger, too

 private:
  struct Server {
    QString name;  // "a/": of its lanes in the model
    QString store, spool, bootId;
    std::unique_ptr<server::Household> household;
  };
  struct Adjustment {
    LimitName name;
    bool isAddition = false;
    std::int64_t minutes = 0;
    std::int64_t added = 0;
  };

  static QString TextOf(const LimitName& name);
  // A store that is too busy on a slow machine refuses; then it is asked again.
  server::AdminResult Insist(const std::function<server::AdminResult()>& change);
  void Insist(const Peer& peer, const QString& identifier, const std::function<void()>& request);
  bool IsPlanned() const;
  server::Household& Its() const { return *servers_[turn_].household; }
  server::Clocks ClocksOf(std::size_t server);
  void Settle();
  bool Speaks(const Peer& peer) const;
  QString LaneOf(const Peer& peer) const;
  LimitName NameOf(const Peer& peer, const QString& identifier) const {
    return {peer.user, identifier};
  }
  void CompareAt(const Peer& peer, const QString& identifier);
  void ReadLedger();
  void Note(const QString& event);
  void Expect(const QString& what, std::int64_t got, std::int64_t wanted);

  QTemporaryDir folder_;
  QTimeZone zone_;
  Model model_;
  bool isClockSet_ = true;
  bool wasBusy_ = false;  // with a top-up
  int boots_ = 0;
  int copies_ = 0;
  int turns_ = 0;
  std::vector<Server> servers_;
  std::size_t turn_ = 0;
  std::map<QString, Adjustment> adjustments_;
  std::optional<std::pair<server::Backup, ModelBackup>> backup_;

  std::int64_t seen_ = 0;  // of the ledger
  std::map<LimitName, std::int64_t> sums_;
  std::map<LimitName, std::map<QDate, std::int64_t>> used_;
  std::map<LimitName, std::map<QString, int>> topUps_;
  std::map<QString, int> rowsBySource_;
  int spentAnswers_ = 0;

  std::deque<QString> events_;
  std::string problem_;
};

}  // namespace vardell::test
