// One household on one machine: a real Server, a real agent, real applications on a real X server,
// under a folder of their own. Seconds of enforcement are short; what happened is read from the
// Server's ledger through vardellctl and from pidfds, never from the agent's own words alone.
#pragma once

#include <QJsonArray>
#include <QTemporaryDir>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/Program.h"

namespace vardell::test {

inline constexpr int kSecondMs = 100;

class World {
 public:
  explicit World(int secondMs = kSecondMs);
  ~World();

  // An application with a desktop entry of its own; `command` is copied, so that each application
  // has an executable that no other has.
  void InstallApplication(const std::string& identifier,
                          const std::string& program = "/usr/bin/xclock");
  std::string ExecutableOf(const std::string& identifier) const;
  Program Launch(const std::string& identifier, const std::vector<std::string>& arguments = {});
  void WritePreferences(const QVariantMap& preferences);
  // The user's home folder then holds one file of that length.
  void SetHomeSize(std::int64_t bytes);

  void StartServer(const std::string& listen = "127.0.0.1:0", bool publish = true);
  void StartAgent(const std::map<std::string, std::string>& environment = {});
  // The agent inside the session of a leader: `sh`, which stays.
  void StartAgentInSession(const std::map<std::string, std::string>& environment = {});
  void EndAgentOfSession();
  // Server and agent, up to where the agent has found the Server.
  [[nodiscard]] bool StartAll();
  // An application that is counted all the time; its reports tell how far the minutes have got.
  void StartWitness();
  Finished Ctl(std::vector<std::string> words);
  void SetLimits(const std::string& identifier, const std::vector<std::string>& values);

  // What the ledger holds of an identifier: the claims of the agent's reports, in order.
  std::vector<int> Claims(const std::string& identifier);
  std::optional<int> Credit(const std::string& identifier);
  bool WaitForClaims(const std::string& identifier, const std::vector<int>& claims,
                     std::chrono::milliseconds patience = kPatience);

  std::chrono::milliseconds Seconds(int number) const {
    return std::chrono::milliseconds(number * secondMs_);
  }
  // A pipe that nobody ever writes into: "never" in this folder.
  const std::string& user() const { return user_; }
  std::string Path(const std::string& relative) const { return root_ + "/" + relative; }
  std::map<std::string, std::string> Environment() const;
  QString AgentOutput() const;

  Program server;
  Program agent;
  Program leader;
  Program witness;

 private:
  const int secondMs_;
  QTemporaryDir folder_;
  std::string root_;
  std::string user_;
};

}  // namespace vardell::test
