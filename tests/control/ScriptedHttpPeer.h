// A Server's control socket that answers each connection with the next line of a script, and keeps
// what it was asked.
#pragma once

#include <QRegularExpression>
#include <QTemporaryDir>

#include "tests/support/ScriptedPeer.h"

namespace vardell::test {

// A whole answer with that status and JSON.
inline QByteArray Answer(int status, const QByteArray& json) {
  return "HTTP/1.1 " + QByteArray::number(status) +
         " X\r\nContent-Length: " + QByteArray::number(json.size()) + "\r\n\r\n" + json;
}

class ScriptedHttpPeer {
 public:
  // An empty answer hangs up at once; kSilence keeps the connection and says no more.
  static constexpr char kSilence[] = "HTTP/1.1 200";

  explicit ScriptedHttpPeer(std::vector<QByteArray> answers)
      : path_(folder_.filePath(QStringLiteral("control.sock"))),
        peer_(Scripts(std::move(answers)), path_) {}

  QString path() const { return path_; }
  // Whole requests, in order.
  std::vector<QByteArray> requests() const { return peer_.Frames(); }

  // The next request of a connection, whole.
  static QByteArray ReadRequest(PeerConnection& peer) {
    static const QRegularExpression kLength(QStringLiteral("Content-Length: (\\d+)"));
    QByteArray request;
    while (!request.endsWith("\r\n\r\n")) {
      const QByteArray byte = peer.ReadBytes(1);
      if (byte.isEmpty()) return request;
      request += byte;
    }
    return request +
           peer.ReadBytes(kLength.match(QString::fromLatin1(request)).captured(1).toInt());
  }

 private:
  static std::vector<ScriptedPeer::Script> Scripts(std::vector<QByteArray> answers) {
    std::vector<ScriptedPeer::Script> scripts;
    answers.push_back(Answer(500, "{}"));
    for (const QByteArray& answer : answers) {
      scripts.push_back([answer](PeerConnection& peer) {
        peer.recorded(ReadRequest(peer));
        peer.Send(answer);
        if (answer == kSilence) peer.HoldUntilPeerStops();
      });
    }
    return scripts;
  }

  QTemporaryDir folder_;
  QString path_;
  ScriptedPeer peer_;
};

}  // namespace vardell::test
