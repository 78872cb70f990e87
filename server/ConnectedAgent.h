// What the Household keeps of one connection of an agent.
#pragma once

#include <QDateTime>
#include <QHash>
#include <QString>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "server/CreditRules.h"

namespace vardell::server {

// The identifiers that a connection fetched lately, oldest first; the oldest go where they are more
// than kMaxRecentFetches or have more than kMaxRecentFetchCharacters.
class RecentFetches {
 public:
  struct Fetch {
    QString identifier;
    std::optional<std::int32_t> credit;  // as sent; none without an enabled limit
    EnforcementTime time{0};
  };

  void Add(Fetch fetch);
  void Clear() { fetches_.clear(); }
  const std::vector<Fetch>& All() const { return fetches_; }

 private:
  std::vector<Fetch> fetches_;
};

// Of a user and an identifier.
struct NameHash {
  std::size_t operator()(const std::pair<QString, QString>& name) const { return qHash(name); }
};

struct ConnectedAgent {
  QString host;
  QDateTime since;
  QString user;           // whom it last spoke for, and might; empty: nobody yet
  RecentFetches fetches;  // of that user
  // What it was last given for a user and identifier; 12345 as it was sent.
  std::unordered_map<std::pair<QString, QString>, Handed, NameHash> handed;
};

}  // namespace vardell::server
