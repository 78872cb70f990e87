// Agents and an administrator who go on while Servers and databases are killed, and the comparison
// of what they were told with the ledger. A minute lasts 60 ms.
//
// Credits are made so that each tells its whole past: an account begins with kFirstCredit, an
// adjustment adds kAdjustment, and use takes away less than either.
#pragma once

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "server/LimitsKeys.h"
#include "tests/server/RealServer.h"

namespace vardell::server {

inline constexpr int kAdjustment = 100000;
inline constexpr auto kMinuteOfLoad = 60ms;
inline constexpr auto kLongestAnswer = 3s;  // a second, on a machine that others do not use

struct Endpoint {
  std::uint16_t port = 0;
  const char* address = "127.0.0.1";
};

// An agent of one application on a thread of its own: reports a minute, fetches, waits for the
// answer, and again, on a new connection where the old one is lost. It pays each minute when it
// begins, so that each of its reports is charged; a greedy one reports as fast as it is answered.
class LoadAgent {
 public:
  struct Told {
    std::uint64_t reports = 0;  // that a fetch was answered after
    std::vector<int> credits;   // since the last look
  };

  // The first one that answers is stayed with. `network`: a namespace's file, or none.
  LoadAgent(QString identifier, std::vector<Endpoint> servers, bool isGreedy = false,
            std::string network = {})
      : identifier_(std::move(identifier)),
        servers_(std::move(servers)),
        isGreedy_(isGreedy),
        network_(std::move(network)),
        thread_([this](const std::stop_token& token) { Run(token); }) {}

  const QString& Identifier() const { return identifier_; }
  bool IsGreedy() const { return isGreedy_; }
  std::uint64_t Sent() const { return sent_; }
  std::chrono::milliseconds LongestWait() const { return longest_.load(); }
  std::uint64_t Acknowledged() const { return acknowledged_; }
  Told Look() {
    const std::lock_guard lock(mutex_);
    return {acknowledged_, std::exchange(seen_, {})};
  }
  void Stop() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
  }

 private:
  void Run(const std::stop_token& token) {
    if (!network_.empty()) {
      const int there = open(network_.c_str(), O_RDONLY | O_CLOEXEC);
      if (setns(there, CLONE_NEWNET) != 0) abort();
      close(there);
    }
    for (std::size_t i = 0; !token.stop_requested(); ++i) {
      const Endpoint& server = servers_[i % servers_.size()];
      const Client client(server.port, server.address);
      if (client.IsConnected()) {
        Talk(client, token);
      } else {
        poll(nullptr, 0, 5);
      }
    }
  }
  void Talk(const Client& client, const std::stop_token& token) {
    const QStringList names{MyName(), identifier_};
    const QByteArray fetch = FrameOf(RequestKind::FetchLimits, names);
    int credit = Fetch(client, FrameOf(RequestKind::ApplicationStart, names) + fetch, false);
    while (credit >= 0 && !token.stop_requested()) {
      while (!isGreedy_ && Clock::now() < nextMinute_) poll(nullptr, 0, 2);
      nextMinute_ = Clock::now() + kMinuteOfLoad;
      LimitsRecord record;
      record.credit = credit - 1;
      ++sent_;
      credit = Fetch(client,
                     FrameOf(RequestKind::CreditReport,
                             AppendLimitsRecordToData(MyName(), identifier_, record)) +
                         fetch,
                     true);
    }
  }
  int Fetch(const Client& client, const QByteArray& frames, bool isReport) {
    const auto begin = Clock::now();
    client.Send(frames);
    const auto answer = client.ReadDictionary();
    if (!answer) return -1;
    const int credit = answer->value(QStringLiteral("Credit"), -1).toInt();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    longest_ = std::max(longest_.load(), took);
    const std::lock_guard lock(mutex_);
    if (isReport) ++acknowledged_;
    seen_.push_back(credit);
    return credit;
  }

  const QString identifier_;
  const std::vector<Endpoint> servers_;
  const bool isGreedy_;
  const std::string network_;
  Clock::time_point nextMinute_;
  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> acknowledged_{0};
  std::atomic<std::chrono::milliseconds> longest_{0ms};
  std::mutex mutex_;
  std::vector<int> seen_;
  std::jthread thread_;
};

// Adjusts credits on a thread of its own, each under an id of its own that is asked for until it is
// answered, and then often once more.
class LoadAdministrator {
 public:
  LoadAdministrator(QString control, QStringList identifiers, QString name)
      : control_(std::move(control)),
        identifiers_(std::move(identifiers)),
        name_(std::move(name)),
        thread_([this](const std::stop_token& token) { Run(token); }) {}

  struct Told {
    std::multiset<QString> done;  // ids
    std::set<int> refusals;       // statuses other than 200
    int changedByRepeating = 0;
    QStringList sentences;  // of the refusals, each once
  };
  Told Look() const {
    const std::lock_guard lock(mutex_);
    return told_;
  }
  void Stop() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
  }

 private:
  void Run(const std::stop_token& token) {
    for (int i = 0; !token.stop_requested(); ++i) {
      const QString id = QStringLiteral("%1-%2").arg(name_).arg(i);
      const QString& identifier = identifiers_[i % identifiers_.size()];
      if (!Adjust(identifier, id, token)) return;
      {
        const std::lock_guard lock(mutex_);
        told_.done.insert(id);
      }
      if (i % 3 == 0) (void)Adjust(identifier, id, token);
      poll(nullptr, 0, 20);
    }
  }
  bool Adjust(const QString& identifier, const QString& id, const std::stop_token& token) {
    const QJsonObject body{{QStringLiteral("minutes"), kAdjustment},
                           {QStringLiteral("id"), id},
                           {QStringLiteral("reason"), id}};
    while (!token.stop_requested()) {
      const HttpAnswer answer =
          Ask(control_, "POST", LimitPath(identifier) + QStringLiteral("/adjustments"), body);
      const std::lock_guard lock(mutex_);
      if (answer.status == 200) {
        if (answer.body.value(QLatin1String("added")).toInt() != kAdjustment) {
          ++told_.changedByRepeating;
        }
        return true;
      }
      if (answer.status != 0) {
        told_.refusals.insert(answer.status);
        const QString sentence = answer.body.value(QLatin1String("detail")).toString() +
                                 answer.body.value(QLatin1String("hint")).toString();
        if (!told_.sentences.contains(sentence)) told_.sentences.append(sentence);
      }
      poll(nullptr, 0, 5);
    }
    return false;
  }

  const QString control_;
  const QStringList identifiers_;
  const QString name_;
  mutable std::mutex mutex_;
  Told told_;
  std::jthread thread_;
};

// What the ledger says, read on from where it was read to.
class LedgerReader {
 public:
  struct Account {
    std::int64_t credit = 0;
    std::uint64_t used = 0;
    std::set<std::int64_t> credits;                 // that it has had
    std::map<std::int64_t, std::int64_t> greatest;  // of them, by what it tells of use
  };

  std::map<QString, Account> accounts;
  std::multiset<QString> reasons;
  int brokenLinks = 0;

  // False where it cannot be read.
  bool ReadOn(const RealServer& server) {
    while (true) {
      const HttpAnswer answer = server.Ask(
          "GET", QStringLiteral("/v1/ledger?limit=1000&after=%1").arg(static_cast<qint64>(last_)));
      if (answer.status != 200) return false;
      const QJsonArray rows = answer.body.value(QLatin1String("rows")).toArray();
      for (const QJsonValue& row : rows) Take(row.toObject());
      if (rows.isEmpty()) return true;
    }
  }

 private:
  void Take(const QJsonObject& row) {
    last_ = row.value(QLatin1String("id")).toDouble();
    Account& account = accounts[row.value(QLatin1String("identifier")).toString()];
    const std::int64_t credit = row.value(QLatin1String("credit")).toInteger();
    if (account.credit + row.value(QLatin1String("minutes")).toInteger() != credit) ++brokenLinks;
    account.credit = credit;
    account.credits.insert(credit);
    std::int64_t& greatest = account.greatest[credit % kAdjustment];
    greatest = std::max(greatest, credit);
    account.used += static_cast<std::uint64_t>(row.value(QLatin1String("used")).toInteger());
    const QString source = row.value(QLatin1String("source")).toString();
    if (source == QLatin1String("admin")) {
      reasons.insert(row.value(QLatin1String("reason")).toString());
    }
  }

  double last_ = 0;
};

// Everybody, and what is wrong with what they were told: all of it counted, for a campaign's sake.
class Load {
 public:
  // Paced agents of an application each, and a greedy one besides.
  static QStringList Applications(int paced) {
    QStringList names{QStringLiteral("greedy")};
    for (int i = 0; i < paced; ++i) names.append(QStringLiteral("app%1").arg(i));
    return names;
  }

  void AddAgents(const QStringList& applications, const std::vector<Endpoint>& servers,
                 const std::string& network = {}) {
    for (const QString& name : applications) {
      agents_.push_back(
          std::make_unique<LoadAgent>(name, servers, name == applications.first(), network));
    }
  }
  void AddAdministrator(const RealServer& server, const QStringList& applications,
                        const QString& name) {
    administrators_.push_back(
        std::make_unique<LoadAdministrator>(server.Control(), applications, name));
  }
  ~Load() { Stop(); }
  void Stop() {
    for (const auto& agent : agents_) agent->Stop();
    for (const auto& administrator : administrators_) administrator->Stop();
  }

  std::uint64_t Acknowledged() const {
    std::uint64_t sum = 0;
    for (const auto& agent : agents_) sum += agent->Acknowledged();
    return sum;
  }
  // Until everybody was answered that much more often.
  bool Goes(int times = 1) const {
    std::vector<std::uint64_t> wanted;
    for (const auto& agent : agents_) {
      wanted.push_back(agent->Acknowledged() + static_cast<std::uint64_t>(times));
    }
    return WaitUntil([&] {
      for (std::size_t i = 0; i < agents_.size(); ++i) {
        if (agents_[i]->Acknowledged() < wanted[i]) return false;
      }
      return true;
    });
  }
  std::chrono::milliseconds LongestWait() const {
    std::chrono::milliseconds longest{0};
    for (const auto& agent : agents_) longest = std::max(longest, agent->LongestWait());
    return longest;
  }
  LoadAdministrator& Administrator() { return *administrators_.front(); }

  enum class Seen {
    AllInLedger,  // each credit that an agent was told
    MayLag,       // but for adjustments whose success was not heard of when the database was lost
    MayDiffer,    // another Server changes it, too
  };

  // While the store is there.
  void Check(const RealServer& server, Seen rule = Seen::AllInLedger) {
    std::map<QString, std::uint64_t> least;
    std::map<QString, std::vector<int>> seen;
    for (const auto& agent : agents_) {
      LoadAgent::Told told = agent->Look();
      if (!agent->IsGreedy()) least[agent->Identifier()] += told.reports;
      auto& credits = seen[agent->Identifier()];
      credits.insert(credits.end(), told.credits.begin(), told.credits.end());
    }
    std::vector<LoadAdministrator::Told> changes;
    for (const auto& administrator : administrators_) changes.push_back(administrator->Look());

    ASSERT_TRUE(WaitUntil([&] { return server.HasStoredAll(); }, kPatience * 3));
    ASSERT_TRUE(WaitUntil([&] { return ledger_.ReadOn(server); }));
    std::map<QString, std::uint64_t> most;
    for (const auto& agent : agents_) most[agent->Identifier()] += agent->Sent();

    for (const auto& [identifier, reports] : least) {
      const LedgerReader::Account& account = ledger_.accounts[identifier];
      EXPECT_GE(account.used, reports) << qPrintable(identifier) << ": reports are lost";
      EXPECT_LE(account.used, most[identifier]) << qPrintable(identifier) << ": charged twice";
      lost += reports - std::min(reports, account.used);
      doubled += account.used - std::min(account.used, most[identifier]);
    }
    for (const auto& [identifier, credits] : seen) {
      if (rule == Seen::MayDiffer) break;
      const LedgerReader::Account& account = ledger_.accounts[identifier];
      for (const int credit : credits) {
        if (account.credits.contains(credit)) continue;
        const auto same = account.greatest.find(credit % kAdjustment);
        if (rule == Seen::MayLag && same != account.greatest.end() && credit < same->second) {
          continue;
        }
        ADD_FAILURE() << qPrintable(identifier) << " was told " << credit;
        ++lost;
      }
    }
    for (const LoadAdministrator::Told& told : changes) {
      for (const QString& id : told.done) {
        const auto rows = ledger_.reasons.count(id);
        EXPECT_EQ(rows, 1u) << qPrintable(id);
        (rows == 0 ? lost : doubled) += rows == 1 ? 0 : 1;
      }
      EXPECT_EQ(told.changedByRepeating, 0);
    }
    EXPECT_EQ(ledger_.brokenLinks, 0);
    EXPECT_LT(LongestWait(), kLongestAnswer);
  }
  // When nobody changes anything any more: credits are the ledger's sums.
  void CheckEnd(const RealServer& server) {
    Stop();
    Check(server, Seen::MayDiffer);
    std::set<QString> ids(ledger_.reasons.begin(), ledger_.reasons.end());
    EXPECT_EQ(ids.size() + Limits() - 1, ledger_.reasons.size()) << "an id was applied twice";
    for (const auto& [identifier, account] : ledger_.accounts) {
      EXPECT_TRUE(WaitUntil([&, name = identifier, credit = account.credit] {
        const QJsonObject limit = server.Ask("GET", LimitPath(name)).body;
        return limit.value(QLatin1String("credit")).toInteger(-1) == credit;
      })) << qPrintable(identifier);
    }
  }
  std::size_t Limits() const { return ledger_.accounts.size(); }
  std::size_t Adjustments() const { return ledger_.reasons.size() - Limits(); }

  std::uint64_t lost = 0;
  std::uint64_t doubled = 0;

 private:
  std::vector<std::unique_ptr<LoadAgent>> agents_;
  std::vector<std::unique_ptr<LoadAdministrator>> administrators_;
  LedgerReader ledger_;
};

// A test of real Servers in a network and with mounts of its own.
class CrashFixture : public testing::Test {
 protected:
  void SetUp() override {
    if (!LeaveTheMachine()) GTEST_SKIP() << "needs root and a network and mounts of its own";
    ASSERT_TRUE(folder_.isValid());
  }
  std::string Path(const char* name) const {
    return folder_.filePath(QLatin1String(name)).toStdString();
  }
  int Random(int least, int most) {
    return std::uniform_int_distribution<int>(least, most)(random_);
  }
  void Pause(int most) { poll(nullptr, 0, Random(0, most)); }

  QTemporaryDir folder_;
  std::mt19937 random_{static_cast<unsigned>(CampaignOr("VARDELL_TEST_SEED", 1))};
};

}  // namespace vardell::server
