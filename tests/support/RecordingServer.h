// A well-behaved Server for tests: answers fetches from a table and writes down every frame that it
// gets. Runs on threads of its own on 127.0.0.1; all verbs may be called from the test's thread.
#pragma once

#include <QVariant>
#include <map>

#include "Common Sources/PropertyList.h"
#include "link/MessageEncoding.h"
#include "tests/support/ScriptedPeer.h"

namespace vardell::test {

class RecordingServer {
 public:
  struct Frame {
    int kind = 0;
    QString identifier;
    std::int32_t credit = 0;  // of a report
    QByteArray bytes;         // the whole frame as it came
  };

  QString Address() const { return QStringLiteral("127.0.0.1:%1").arg(peer_.Port()); }

  void Answer(const QString& identifier, const QVariantMap& limits) {
    const std::lock_guard lock(mutex_);
    answers_[identifier] = limits;
  }
  void AnswerCredit(const QString& identifier, int credit) {
    Answer(identifier, {{QStringLiteral("Enabled"), true}, {QStringLiteral("Credit"), credit}});
  }
  std::vector<Frame> TakeFrames() {
    const std::lock_guard lock(mutex_);
    return std::exchange(frames_, {});
  }

 private:
  void Serve(PeerConnection& peer) {
    for (QByteArray bytes = peer.ReadFrame(); !bytes.isEmpty(); bytes = peer.ReadFrame()) {
      const std::lock_guard lock(mutex_);
      frames_.push_back(Read(bytes));
      const Frame& frame = frames_.back();
      // The next fetch shows what was reported.
      if (frame.kind == 6) answers_[frame.identifier][kCredit] = frame.credit;
      if (frame.kind == 1)
        peer.Send(BuildReply(WritePropertyListXml(answers_[frame.identifier]).value()));
    }
  }

  static Frame Read(const QByteArray& bytes) {
    Frame frame;
    frame.bytes = bytes;
    frame.kind = bytes[4];
    qsizetype at = kRequestHeaderBytes;
    (void)CopyStringFromData(bytes, at, &at);
    frame.identifier = CopyStringFromData(bytes, at, &at).value_or(QString());
    frame.credit = ReadLimitsRecordFromData(bytes, at).credit;
    return frame;
  }

  static inline const QString kCredit = QStringLiteral("Credit");
  std::mutex mutex_;
  std::map<QString, QVariantMap> answers_;
  std::vector<Frame> frames_;
  ScriptedPeer peer_{{[this](PeerConnection& peer) { Serve(peer); }}};
};

}  // namespace vardell::test
