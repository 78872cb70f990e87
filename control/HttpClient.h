// One HTTP/1.1 request at a time to the Server's control socket (docs/control-api.md), each over a
// connection of its own. Blocks until the answer is complete, or until nothing has moved for a
// time.
#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace vardell::control {

// Bytes of a body that have gone or come, and of how many; 0 of them where that is not known.
using HttpProgress = std::function<void(std::int64_t done, std::int64_t total)>;

struct HttpRequest {
  QByteArray method;  // "GET"
  QByteArray target;  // "/v1/status", percent-encoded
  std::vector<std::pair<QByteArray, QByteArray>> headers;
  QByteArray body;  // JSON, or empty for none
  HttpProgress sending = {};
  HttpProgress receiving = {};
  // Instead of the client's, for what keeps the Server busy.
  std::optional<std::chrono::milliseconds> patience = {};
  std::function<bool()> isGivenUp = {};  // asked while nothing moves; true ends it: NoAnswer
};

enum class HttpOutcome {
  Answered,
  Unreachable,  // nobody listens, or we may not ask
  NoAnswer,     // connected, but the answer did not come in time or broke off
  BadAnswer,    // not HTTP, or larger than a reply may be
};

struct HttpReply {
  HttpOutcome outcome = HttpOutcome::Answered;
  QString trouble;  // for people, unless Answered
  int status = 0;
  QByteArray body;
};

class HttpClient {
 public:
  HttpClient(QString socketPath, std::chrono::milliseconds patience);
  HttpReply Ask(const HttpRequest& request) const;
  const QString& socketPath() const { return socketPath_; }

 private:
  QString socketPath_;
  std::chrono::milliseconds patience_;  // from one byte to the next
};

}  // namespace vardell::control
