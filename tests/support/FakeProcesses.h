// Processes that a test makes up.
#pragma once

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "platform/Processes.h"

namespace vardell {

class FakeProcesses : public Processes {
 public:
  std::vector<ProcessSerialNumber> RunningApplications() override {
    std::vector<ProcessSerialNumber> all;
    for (const auto& [process, info] : running_) all.push_back(process);
    return all;
  }
  std::optional<ApplicationInfo> Application(const ProcessSerialNumber& process) override {
    for (const auto& [known, info] : running_) {
      if (known == process) return info;
    }
    return std::nullopt;
  }
  bool IsAlive(std::int32_t pid) override {
    const auto known = alive_.find(pid);
    return known != alive_.end() && known->second;
  }
  void Watch(Handler launched, Handler terminated) override {
    launched_ = std::move(launched);
    terminated_ = std::move(terminated);
  }

  void SetAlive(std::int32_t pid, bool alive) { alive_[pid] = alive; }
  // An application that runs without anybody having been told of its launch.
  ProcessSerialNumber Run(const ApplicationInfo& info, std::int32_t pid) {
    running_.emplace_back(ProcessSerialNumber{pid, ++started_}, info);
    alive_[pid] = true;
    return running_.back().first;
  }
  ProcessSerialNumber Launch(const ApplicationInfo& info, std::int32_t pid) {
    const ProcessSerialNumber process = Run(info, pid);
    if (launched_) launched_(process);
    return process;
  }
  void Quit(const ProcessSerialNumber& process) {
    std::erase_if(running_, [&](const auto& known) { return known.first == process; });
    alive_[process.pid] = false;
    if (terminated_) terminated_(process);
  }

 private:
  std::vector<std::pair<ProcessSerialNumber, ApplicationInfo>> running_;
  std::map<std::int32_t, bool> alive_;
  std::uint64_t started_ = 0;
  Handler launched_;
  Handler terminated_;
};

}  // namespace vardell
