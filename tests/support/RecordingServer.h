// A well-behaved Server for tests: answers fetches from a table and writes down every frame that it
// gets. Runs on a thread of its own on 127.0.0.1; all verbs may be called from the test's thread.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <QtEndian>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Common Sources/PropertyList.h"

namespace vardell::test {

class RecordingServer {
 public:
  struct Frame {
    int kind = 0;
    QString user;
    QString identifier;
    std::int32_t credit = 0;  // of a report
    QByteArray bytes;         // the whole frame as it came
  };

  RecordingServer() : stop_(eventfd(0, EFD_CLOEXEC)), listener_(Listen(&port_)) {
    thread_ = std::thread([this] { Serve(); });
  }
  ~RecordingServer() {
    eventfd_write(stop_, 1);
    thread_.join();
    close(listener_);
    close(stop_);
  }

  QString Address() const { return QStringLiteral("127.0.0.1:%1").arg(port_); }

  void Answer(const QString& identifier, const QVariantMap& limits) {
    const std::lock_guard lock(mutex_);
    answers_[identifier] = limits;
  }
  void AnswerCredit(const QString& identifier, int credit) {
    Answer(identifier, {{QStringLiteral("Enabled"), true}, {QStringLiteral("Credit"), credit}});
  }
  // With `following`, each fetch after a report shows the credit that was reported.
  void FollowReports(bool following) { following_ = following; }

  std::vector<Frame> TakeFrames() {
    const std::lock_guard lock(mutex_);
    return std::exchange(frames_, {});
  }

 private:
  static int Listen(std::uint16_t* port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd, 16) != 0) abort();
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    *port = ntohs(address.sin_port);
    return fd;
  }

  void Serve() {
    std::map<int, QByteArray> clients;
    for (;;) {
      std::vector<pollfd> waits{{stop_, POLLIN, 0}, {listener_, POLLIN, 0}};
      for (const auto& [fd, pending] : clients) waits.push_back({fd, POLLIN, 0});
      poll(waits.data(), waits.size(), -1);
      if (waits[0].revents) break;
      if (waits[1].revents) clients[accept(listener_, nullptr, nullptr)];
      for (std::size_t i = 2; i < waits.size(); ++i) {
        if (waits[i].revents && !Receive(waits[i].fd, clients[waits[i].fd])) {
          close(waits[i].fd);
          clients.erase(waits[i].fd);
        }
      }
    }
    for (const auto& [fd, pending] : clients) close(fd);
  }

  bool Receive(int fd, QByteArray& pending) {
    char buffer[4096];
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got <= 0) return false;
    pending.append(buffer, got);
    while (pending.size() >= 4) {
      const auto length = qFromBigEndian<quint32>(pending.constData());
      if (static_cast<quint32>(pending.size()) < length) break;
      Handle(fd, pending.left(length));
      pending.remove(0, length);
    }
    return true;
  }

  static QString TakeString(const QByteArray& bytes, int& at) {
    const auto length = qFromLittleEndian<quint32>(bytes.constData() + at);
    at += 4 + static_cast<int>(length);
    return QString::fromUtf8(bytes.mid(at - static_cast<int>(length), length));
  }

  void Handle(int fd, const QByteArray& bytes) {
    Frame frame;
    frame.bytes = bytes;
    frame.kind = bytes[4];
    int at = 9;
    frame.user = TakeString(bytes, at);
    if (frame.kind != 7) frame.identifier = TakeString(bytes, at);
    const std::lock_guard lock(mutex_);
    if (frame.kind == 6) {
      frame.credit = qFromLittleEndian<qint32>(bytes.constData() + at + 8);
      if (following_) answers_[frame.identifier][QStringLiteral("Credit")] = frame.credit;
    }
    frames_.push_back(frame);
    if (frame.kind == 1) Reply(fd, answers_[frame.identifier]);
  }

  static void Reply(int fd, const QVariantMap& limits) {
    const QByteArray body = WritePropertyListXml(limits).value();
    QByteArray reply(4, '\0');
    qToBigEndian<quint32>(static_cast<quint32>(body.size()), reply.data());
    reply += body;
    (void)send(fd, reply.constData(), reply.size(), MSG_NOSIGNAL);
  }

  int stop_;
  std::uint16_t port_ = 0;
  int listener_;
  std::mutex mutex_;
  std::map<QString, QVariantMap> answers_;
  std::vector<Frame> frames_;
  std::atomic<bool> following_ = true;
  std::thread thread_;
};

}  // namespace vardell::test
