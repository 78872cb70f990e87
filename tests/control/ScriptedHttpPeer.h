// A Server's control socket that answers each connection with the next line of a script, and keeps
// what it was asked.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QByteArray>
#include <QRegularExpression>
#include <QString>
#include <QTemporaryDir>
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

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
      : path_(folder_.filePath(QStringLiteral("control.sock"))), answers_(std::move(answers)) {
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = path_.toUtf8();
    std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    listen(listener_, 8);
    thread_ = std::thread([this] { Serve(); });
  }
  ~ScriptedHttpPeer() {
    stop_ = true;
    thread_.join();
    close(listener_);
  }

  QString path() const { return path_; }
  // Whole requests, in order.
  std::vector<QByteArray> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  bool Readable(int fd) const {
    pollfd waiting{fd, POLLIN, 0};
    while (!stop_) {
      if (poll(&waiting, 1, 20) == 1) return true;
    }
    return false;
  }

  void Serve() {
    for (std::size_t next = 0; Readable(listener_); ++next) {
      const int connection = accept(listener_, nullptr, nullptr);
      const QByteArray request = ReadRequest(connection);
      {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
      }
      const QByteArray answer = next < answers_.size() ? answers_[next] : Answer(500, "{}");
      // A blocking send takes it all.
      (void)!send(connection, answer.constData(), static_cast<std::size_t>(answer.size()),
                  MSG_NOSIGNAL);
      if (answer == kSilence) (void)Readable(connection);
      close(connection);
    }
  }

  QByteArray ReadRequest(int connection) const {
    QByteArray request;
    while (!Complete(request) && Readable(connection)) {
      char buffer[4096];
      const ssize_t count = recv(connection, buffer, sizeof(buffer), 0);
      if (count <= 0) break;
      request.append(buffer, count);
    }
    return request;
  }

  static bool Complete(const QByteArray& request) {
    static const QRegularExpression kLength(QStringLiteral("Content-Length: (\\d+)"));
    const qsizetype end = request.indexOf("\r\n\r\n");
    const int body = kLength.match(QString::fromLatin1(request)).captured(1).toInt();
    return end >= 0 && request.size() >= end + 4 + body;
  }

  QTemporaryDir folder_;
  QString path_;
  std::vector<QByteArray> answers_;
  int listener_ = -1;
  std::atomic<bool> stop_ = false;
  mutable std::mutex mutex_;
  std::vector<QByteArray> requests_;
  std::thread thread_;
};

}  // namespace vardell::test
