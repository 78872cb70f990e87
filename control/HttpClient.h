// One HTTP/1.1 request at a time to the Server's control socket (docs/control-api.md), each over a
// connection of its own. Blocks until the answer is complete or the time is up.
#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <utility>
#include <vector>

namespace vardell::control {

struct HttpRequest {
  QByteArray method;  // "GET"
  QByteArray target;  // "/v1/status", percent-encoded
  std::vector<std::pair<QByteArray, QByteArray>> headers;
  QByteArray body;  // JSON, or empty for none
};

enum class HttpOutcome {
  Answered,
  Unreachable,  // nobody listens, or we may not ask
  NoAnswer,     // connected, but the answer did not come in time or broke off
  BadAnswer,    // not HTTP, or larger than kMaxControlReplyBytes
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

 private:
  QString socketPath_;
  std::chrono::milliseconds patience_;  // for one request, from connecting to the last byte
};

}  // namespace vardell::control
