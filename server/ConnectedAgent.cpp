#include "server/ConnectedAgent.h"

#include <algorithm>

#include "Common Sources/Caps.h"

namespace vardell::server {

void RecentFetches::Add(Fetch fetch) {
  std::erase_if(fetches_, [&](const Fetch& other) { return other.identifier == fetch.identifier; });
  fetches_.push_back(std::move(fetch));
  std::ptrdiff_t characters = 0;
  std::size_t kept = 0;
  while (kept < std::min(fetches_.size(), kMaxRecentFetches)) {
    characters += fetches_[fetches_.size() - 1 - kept].identifier.size();
    if (characters > kMaxRecentFetchCharacters) break;
    ++kept;
  }
  fetches_.erase(fetches_.begin(), fetches_.end() - static_cast<std::ptrdiff_t>(kept));
}

}  // namespace vardell::server
