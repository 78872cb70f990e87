// One non-blocking TCP connection with a read and a write half, each with a status of its own.
// Main thread only. Nothing blocks but Wait(), which sleeps in poll(2). Never raises SIGPIPE; the
// descriptor does not survive an exec. Closed when destroyed.
#pragma once

#include <QByteArray>
#include <chrono>
#include <cstdint>
#include <memory>

namespace vardell {

enum class StreamStatus {
  NotOpen,
  Opening,  // the connection is being made
  Open,
  AtEnd,  // read half: a read has returned 0; what the peer did is not looked for otherwise
  Closed,
  Error,
};

class StreamPair {
 public:
  using Clock = std::chrono::steady_clock;

  // Not connected yet. `socketAddress`: a sockaddr_in or sockaddr_in6; null for anything else.
  static std::unique_ptr<StreamPair> ToAddress(const QByteArray& socketAddress);
  // To this machine itself, 127.0.0.1.
  static std::unique_ptr<StreamPair> ToLocalHost(std::uint16_t port);

  ~StreamPair();
  StreamPair(const StreamPair&) = delete;
  StreamPair& operator=(const StreamPair&) = delete;

  // The first of the two begins to connect. False where that fails at once, for a half that was
  // opened before, and for one whose pair has failed.
  [[nodiscard]] bool OpenRead();
  [[nodiscard]] bool OpenWrite();
  void Close();

  StreamStatus ReadStatus();
  StreamStatus WriteStatus();

  bool CanAcceptBytes();     // a write would take at least a byte
  bool HasBytesAvailable();  // a read would not wait: bytes, the end or an error

  // How many bytes were read; 0 at the end of the stream (the read half is AtEnd from now on), -1
  // when there is nothing yet or the connection failed, as the status then tells.
  std::int64_t Read(char* bytes, std::int64_t size);
  // How many bytes were taken, 0 when there is no room now, -1 when the connection has failed.
  std::int64_t Write(const char* bytes, std::int64_t size);

  // Sleeps until the connection is made or has failed; when it is made, until there is something to
  // read (`forRead`) or room to write (`forWrite`); at most until `deadline`.
  void Wait(bool forRead, bool forWrite, Clock::time_point deadline);

  int Descriptor() const { return descriptor_; }  // -1 while there is none

 private:
  explicit StreamPair(QByteArray socketAddress) : address_(std::move(socketAddress)) {}
  bool OpenHalf(StreamStatus* half);
  bool StartConnecting();
  void FinishConnecting();
  void SetBoth(StreamStatus status);
  bool Polls(short events) const;

  QByteArray address_;
  int descriptor_ = -1;
  StreamStatus read_ = StreamStatus::NotOpen;
  StreamStatus write_ = StreamStatus::NotOpen;
};

}  // namespace vardell
