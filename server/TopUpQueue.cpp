#include "server/TopUpQueue.h"

namespace vardell::server {

void TopUpQueue::Set(const Name& name, std::int64_t instant) {
  Remove(name);
  instants_.emplace(name, instant);
  byInstant_.emplace(instant, name);
}

void TopUpQueue::SetAll(std::int64_t instant) {
  byInstant_.clear();
  for (auto& [name, its] : instants_) {
    its = instant;
    byInstant_.emplace(instant, name);
  }
}

void TopUpQueue::Remove(const Name& name) {
  const auto found = instants_.find(name);
  if (found == instants_.end()) return;
  byInstant_.erase({found->second, name});
  instants_.erase(found);
}

std::vector<TopUpQueue::Name> TopUpQueue::Due(std::int64_t now, std::size_t most) const {
  std::vector<Name> names;
  for (const auto& [instant, name] : byInstant_) {
    if (instant > now || names.size() == most) break;
    names.push_back(name);
  }
  return names;
}

}  // namespace vardell::server
