#include "platform/linux/ProcessEvents.h"

#include <arpa/inet.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <utility>

namespace vardell {
namespace {

constexpr std::chrono::milliseconds kPause{100};
constexpr int kMaxReads = 256;
constexpr std::size_t kEventAt = NLMSG_HDRLEN + sizeof(cn_msg);
constexpr auto kExec = decltype(proc_event::what)(proc_event::PROC_EVENT_EXEC);

int OpenConnector() {
  const int fd = socket(PF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_CONNECTOR);
  if (fd < 0) return -1;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = CN_IDX_PROC;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool Subscribe(int fd) {
  alignas(nlmsghdr) char buffer[NLMSG_SPACE(sizeof(cn_msg) + sizeof(proc_cn_mcast_op))] = {};
  auto* header = reinterpret_cast<nlmsghdr*>(buffer);
  header->nlmsg_len = NLMSG_LENGTH(sizeof(cn_msg) + sizeof(proc_cn_mcast_op));
  header->nlmsg_type = NLMSG_DONE;
  cn_msg message{};
  message.id.idx = CN_IDX_PROC;
  message.id.val = CN_VAL_PROC;
  message.len = sizeof(proc_cn_mcast_op);
  const proc_cn_mcast_op listen = PROC_CN_MCAST_LISTEN;
  std::memcpy(NLMSG_DATA(header), &message, sizeof message);
  std::memcpy(static_cast<char*>(NLMSG_DATA(header)) + sizeof message, &listen, sizeof listen);
  return send(fd, buffer, header->nlmsg_len, 0) > 0;
}

// Forks and exits are far more frequent, and wake this program for nothing.
void ReceiveExecOnly(int fd) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kEventAt + offsetof(proc_event, what)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htonl(static_cast<std::uint32_t>(kExec)), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFF), BPF_STMT(BPF_RET | BPF_K, 0)};
  const sock_fprog filter{std::size(program), program};
  (void)setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
}

bool IsExec(const char* bytes, ssize_t size) {
  decltype(proc_event::what) what{};
  if (size < static_cast<ssize_t>(kEventAt + sizeof what)) return false;
  std::memcpy(&what, bytes + kEventAt + offsetof(proc_event, what), sizeof what);
  return what == kExec;
}

}  // namespace

ProcessEvents::ProcessEvents(std::function<void()> hint)
    : socket_(OpenConnector()), hint_(std::move(hint)) {
  if (socket_ < 0) return;
  ReceiveExecOnly(socket_);
  if (!Subscribe(socket_)) return;
  notifier_ = std::make_unique<QSocketNotifier>(socket_, QSocketNotifier::Read);
  connect(notifier_.get(), &QSocketNotifier::activated, this, [this] {
    notifier_->setEnabled(false);
    pause_.start();
  });
  pause_.setSingleShot(true);
  pause_.setInterval(kPause);
  connect(&pause_, &QTimer::timeout, this, [this] {
    Drain();
    notifier_->setEnabled(true);
    if (std::exchange(execSeen_, false)) hint_();
  });
}

ProcessEvents::~ProcessEvents() {
  notifier_.reset();
  if (socket_ >= 0) close(socket_);
}

void ProcessEvents::Drain() {
  alignas(nlmsghdr) char buffer[1024];
  for (int i = 0; i < kMaxReads; ++i) {
    const ssize_t size = recv(socket_, buffer, sizeof buffer, 0);
    // Lost messages (ENOBUFS) may have told of a launch.
    if (size < 0) {
      execSeen_ = execSeen_ || errno == ENOBUFS;
      if (errno != ENOBUFS) return;
    } else {
      execSeen_ = execSeen_ || IsExec(buffer, size);
    }
  }
  execSeen_ = true;
}

}  // namespace vardell
