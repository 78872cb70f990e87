// The requests that the Agent makes. Main thread only. Each blocks for at most its time-out and
// what connecting takes: 2 s for each of two attempts of a query, 3 s for a report, 10 s for a
// kill.
#pragma once

#include <QString>
#include <QVariant>
#include <cstdint>
#include <optional>

namespace vardell {

struct ServerLink;

// Request kinds on the wire.
enum class RequestKind : std::uint8_t {
  FetchLimits = 1,
  ApplicationStart = 3,
  SingleQuery = 4,
  DictionaryQuery = 5,
  CreditReport = 6,
  KillProcess = 7,
};

// What the Server answers: normally a dictionary, but the type is not checked. An empty dictionary
// when no reply came (then link.replyMissed is set) or an empty one; an invalid QVariant when the
// reply is no property list.
QVariant CopyLimitsDictionary(ServerLink& link, const QString& userName,
                              const QString& appIdentifier);

// The result of SendRequest.
std::int32_t SendAppStarted(ServerLink& link, const QString& userName,
                            const QString& appIdentifier);

// Asks, and drops the answer.
void SendQuery(ServerLink& link, const QString& query);

std::optional<QVariantMap> CopyQueryDictionary(ServerLink& link, const QString& first,
                                               const QString& second);

// Signal 9 by this process itself; where that fails, a request to the kill listener of this
// machine. Nothing for a pid of 0 or less. Says on standard output what became of it.
void KillProcess(ServerLink& link, std::int32_t pid);

}  // namespace vardell
