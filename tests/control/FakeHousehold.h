// The Server's side of a backup: a household in memory that is given out, compared and replaced,
// and that can be told what to lose.
#pragma once

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <mutex>

#include "tests/control/ScriptedHttpPeer.h"

namespace vardell::test {

class FakeHousehold {
 public:
  enum class Trouble {
    None,
    Refuses,         // a PUT that is no check: 503
    LosesRequest,    // hangs up without doing it
    LosesAnswer,     // does it and hangs up
    Stops,           // nobody listens any more once the present state was asked for twice
    HoldsTheSecond,  // of the requests for the present state, until it has no trouble any more
    HoldsThePut,     // that is no check, likewise
  };

  explicit FakeHousehold(QJsonObject state, Trouble trouble = Trouble::None)
      : state_(std::move(state)),
        trouble_(trouble),
        path_(folder_.filePath(QStringLiteral("control.sock"))),
        peer_({[this](PeerConnection& peer) { Serve(peer); }}, path_) {}

  QString path() const { return path_; }
  QJsonObject state() const {
    const std::lock_guard lock(mutex_);
    return state_;
  }
  void SetState(const QJsonObject& state, Trouble trouble = Trouble::None) {
    const std::lock_guard lock(mutex_);
    state_ = state;
    trouble_ = trouble;
    gets_ = puts_ = 0;
  }
  std::size_t requestCount() const { return peer_.Frames().size(); }
  int gets() const {
    const std::lock_guard lock(mutex_);
    return gets_;
  }
  int puts() const {  // but for checks
    const std::lock_guard lock(mutex_);
    return puts_;
  }

 private:
  void Serve(PeerConnection& peer) {
    const QByteArray request = ScriptedHttpPeer::ReadRequest(peer);
    peer.recorded(request);
    Count(request);
    while (HasToWait(request)) peer.Pause(std::chrono::milliseconds(5));
    peer.Send(AnswerTo(request));
  }

  void Count(const QByteArray& request) {
    const std::lock_guard lock(mutex_);
    gets_ += request.startsWith("GET ") ? 1 : 0;
    puts_ += request.startsWith("PUT /v1/backup HTTP") ? 1 : 0;
  }

  bool HasToWait(const QByteArray& request) {
    const std::lock_guard lock(mutex_);
    const bool isPut = request.startsWith("PUT /v1/backup HTTP");
    return (trouble_ == Trouble::HoldsTheSecond && gets_ == 2) ||
           (trouble_ == Trouble::HoldsThePut && isPut);
  }

  QByteArray AnswerTo(const QByteArray& request) {
    const std::lock_guard lock(mutex_);
    if (request.startsWith("GET ")) {
      if (trouble_ == Trouble::Stops && gets_ == 2) QFile::remove(path_);
      return Answer(200, QJsonDocument(state_).toJson(QJsonDocument::Compact));
    }
    const bool isCheck = request.startsWith("PUT /v1/backup?check=1 ");
    const QJsonObject wanted =
        QJsonDocument::fromJson(request.mid(request.indexOf("\r\n\r\n") + 4)).object();
    if (wanted.isEmpty()) return {};  // cut off
    const QByteArray counts = QJsonDocument(Compare(wanted)).toJson(QJsonDocument::Compact);
    if (isCheck) return Answer(200, counts);
    if (trouble_ == Trouble::Refuses) {
      return Answer(503, R"({"code":"store-failed","title":"the store is full"})");
    }
    if (trouble_ == Trouble::LosesRequest) return {};
    state_ = wanted;
    return trouble_ == Trouble::LosesAnswer ? QByteArray() : Answer(200, counts);
  }

  static QMap<QString, QJsonObject> LimitsOf(const QJsonObject& state) {
    QMap<QString, QJsonObject> limits;
    const QJsonArray entries = state[QStringLiteral("limits")].toArray();
    for (const QJsonValue& entry : entries) {
      limits[entry[QStringLiteral("user")].toString() +
             entry[QStringLiteral("identifier")].toString()] = entry.toObject();
    }
    return limits;
  }

  QJsonObject Compare(const QJsonObject& wanted) const {
    const auto before = LimitsOf(state_);
    const auto after = LimitsOf(wanted);
    int added = 0;
    int changed = 0;
    for (auto one = after.begin(); one != after.end(); ++one) {
      added += before.contains(one.key()) ? 0 : 1;
      changed += before.contains(one.key()) && before[one.key()] != one.value() ? 1 : 0;
    }
    const auto kept = after.size() - added;
    return {
        {QStringLiteral("limits"), QJsonObject{{QStringLiteral("removed"), before.size() - kept},
                                               {QStringLiteral("added"), added},
                                               {QStringLiteral("changed"), changed},
                                               {QStringLiteral("same"), kept - changed}}}};
  }

  mutable std::mutex mutex_;
  QJsonObject state_;
  Trouble trouble_;
  int gets_ = 0;
  int puts_ = 0;
  QTemporaryDir folder_;
  QString path_;
  ScriptedPeer peer_;
};

}  // namespace vardell::test
