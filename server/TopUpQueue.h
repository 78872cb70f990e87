// Which limits' top-ups are to be decided, and when; the soonest is found at once.
#pragma once

#include <QString>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

namespace vardell::server {

class TopUpQueue {
 public:
  using Name = std::pair<QString, QString>;  // user, identifier

  // `instant`: milliseconds since 1970. Replaces what was set before.
  void Set(const Name& name, std::int64_t instant);
  void SetAll(std::int64_t instant);
  void Remove(const Name& name);

  // Those whose instant has come, the soonest first. They stay until they are set anew.
  std::vector<Name> Due(std::int64_t now, std::size_t most) const;

 private:
  std::map<Name, std::int64_t> instants_;
  std::set<std::pair<std::int64_t, Name>> byInstant_;
};

}  // namespace vardell::server
