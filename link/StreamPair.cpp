#include "link/StreamPair.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vardell {

namespace {

bool IsSocketAddress(const QByteArray& address) {
  sockaddr_storage storage{};
  if (address.size() < qsizetype(sizeof(sa_family_t)) || address.size() > qsizetype(sizeof storage))
    return false;
  std::memcpy(&storage, address.constData(), static_cast<std::size_t>(address.size()));
  return (storage.ss_family == AF_INET && address.size() == sizeof(sockaddr_in)) ||
         (storage.ss_family == AF_INET6 && address.size() == sizeof(sockaddr_in6));
}

sa_family_t Family(const QByteArray& address) {
  sockaddr header{};
  std::memcpy(&header, address.constData(), sizeof header);
  return header.sa_family;
}

// A connect to a port of this machine's ephemeral range on which nobody listens can meet itself.
bool IsConnectedToItself(int descriptor) {
  sockaddr_storage own{}, peer{};
  socklen_t ownSize = sizeof own, peerSize = sizeof peer;
  if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &ownSize) != 0) return false;
  if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerSize) != 0) return false;
  return ownSize == peerSize && std::memcmp(&own, &peer, ownSize) == 0;
}

int OpenSocket(sa_family_t family) {
  const int descriptor = socket(family, SOCK_STREAM, IPPROTO_TCP);
  if (descriptor < 0) return -1;
  fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_NONBLOCK);
  // A report and the fetch after it are two small writes: the second must not wait for the first
  // one's acknowledgement.
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return descriptor;
}

bool IsNotNow(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

int PollTimeout(StreamPair::Clock::time_point deadline) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - StreamPair::Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
}

}  // namespace

std::unique_ptr<StreamPair> StreamPair::ToAddress(const QByteArray& socketAddress) {
  if (!IsSocketAddress(socketAddress)) return nullptr;
  return std::unique_ptr<StreamPair>(new StreamPair(socketAddress));
}

std::unique_ptr<StreamPair> StreamPair::ToLocalHost(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return ToAddress(QByteArray(reinterpret_cast<const char*>(&address), sizeof address));
}

StreamPair::~StreamPair() {
  Close();
}

void StreamPair::Close() {
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = -1;
  SetBoth(StreamStatus::Closed);
}

bool StreamPair::OpenRead() {
  return OpenHalf(&read_);
}
bool StreamPair::OpenWrite() {
  return OpenHalf(&write_);
}

bool StreamPair::OpenHalf(StreamStatus* half) {
  if (*half != StreamStatus::NotOpen) return false;
  if (descriptor_ < 0 && !StartConnecting()) {
    SetBoth(StreamStatus::Error);
    return false;
  }
  *half = StreamStatus::Opening;
  return true;
}

bool StreamPair::StartConnecting() {
  descriptor_ = OpenSocket(Family(address_));
  if (descriptor_ < 0) return false;
  const auto* address = reinterpret_cast<const sockaddr*>(address_.constData());
  if (connect(descriptor_, address, static_cast<socklen_t>(address_.size())) == 0) return true;
  return errno == EINPROGRESS || errno == EINTR;
}

// Finds out whether the connection has been made meanwhile.
void StreamPair::FinishConnecting() {
  if (read_ != StreamStatus::Opening && write_ != StreamStatus::Opening) return;
  if (!Polls(POLLOUT)) return;
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0 ||
      IsConnectedToItself(descriptor_)) {
    SetBoth(StreamStatus::Error);
    return;
  }
  if (read_ == StreamStatus::Opening) read_ = StreamStatus::Open;
  if (write_ == StreamStatus::Opening) write_ = StreamStatus::Open;
}

void StreamPair::SetBoth(StreamStatus status) {
  read_ = write_ = status;
}

bool StreamPair::Polls(short events) const {
  pollfd polled{descriptor_, events, 0};
  return descriptor_ >= 0 && poll(&polled, 1, 0) > 0 && polled.revents != 0;
}

StreamStatus StreamPair::ReadStatus() {
  FinishConnecting();
  return read_;
}

StreamStatus StreamPair::WriteStatus() {
  FinishConnecting();
  return write_;
}

bool StreamPair::CanAcceptBytes() {
  return WriteStatus() == StreamStatus::Open && Polls(POLLOUT);
}

bool StreamPair::HasBytesAvailable() {
  return ReadStatus() == StreamStatus::Open && Polls(POLLIN);
}

std::int64_t StreamPair::Read(char* bytes, std::int64_t size) {
  if (read_ == StreamStatus::AtEnd) return 0;
  if (ReadStatus() != StreamStatus::Open) return -1;
  const ssize_t got = recv(descriptor_, bytes, static_cast<std::size_t>(size), 0);
  if (got == 0 && size > 0) read_ = StreamStatus::AtEnd;
  if (got < 0 && !IsNotNow(errno)) SetBoth(StreamStatus::Error);
  return got;
}

std::int64_t StreamPair::Write(const char* bytes, std::int64_t size) {
  if (WriteStatus() != StreamStatus::Open) return -1;
  const ssize_t taken = send(descriptor_, bytes, static_cast<std::size_t>(size), MSG_NOSIGNAL);
  if (taken >= 0) return taken;
  if (IsNotNow(errno)) return 0;
  SetBoth(StreamStatus::Error);
  return -1;
}

void StreamPair::Wait(bool forRead, bool forWrite, Clock::time_point deadline) {
  FinishConnecting();
  const bool opening = read_ == StreamStatus::Opening || write_ == StreamStatus::Opening;
  short events = 0;
  if (opening || forWrite) events |= POLLOUT;
  if (!opening && forRead) events |= POLLIN;
  pollfd polled{descriptor_, events, 0};
  poll(&polled, 1, PollTimeout(deadline));
}

}  // namespace vardell
