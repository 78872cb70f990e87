// The Server's side of a backup: a household in memory that is given out, compared and replaced,
// and that can be told what to lose.
#pragma once

#include <QJsonDocument>
#include <QJsonObject>
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

  // As the Server counts where the one is given for the other of BackupTest.
  QJsonObject Compare(const QJsonObject& wanted) const {
    const int differ = wanted == state_ ? 0 : 1;
    return {{QStringLiteral("limits"), QJsonObject{{QStringLiteral("removed"), differ},
                                                   {QStringLiteral("added"), differ},
                                                   {QStringLiteral("changed"), differ},
                                                   {QStringLiteral("same"), 2 - 2 * differ}}}};
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
