#include "server/Publisher.h"

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/simple-watch.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "link/VardellLoader.h"

namespace vardell::server {
namespace {

constexpr std::chrono::milliseconds kRetryPause{1000};
constexpr std::chrono::seconds kDaemonsTime{1};   // to answer a caller who cannot wait for long
constexpr std::size_t kMaxServiceNameBytes = 63;  // of a DNS label

struct FreePoll {
  void operator()(AvahiSimplePoll* poll) const { avahi_simple_poll_free(poll); }
};
struct FreeClient {
  void operator()(AvahiClient* client) const { avahi_client_free(client); }
};
struct FreeText {
  void operator()(char* text) const { avahi_free(text); }
};

// Cut where a character begins.
std::string ServiceNameFrom(const QString& wanted) {
  std::array<char, 256> host{};
  if (gethostname(host.data(), host.size() - 1) != 0) host[0] = '\0';
  const QString name =
      wanted.isEmpty() ? QStringLiteral("Vardell on %1").arg(QString::fromLocal8Bit(host.data()))
                       : wanted;
  std::string bytes = name.toStdString();
  if (bytes.size() <= kMaxServiceNameBytes) return bytes;
  std::size_t end = kMaxServiceNameBytes;
  while (end > 0 && (static_cast<unsigned char>(bytes[end]) & 0xC0) == 0x80) --end;
  bytes.resize(end);
  return bytes;
}

}  // namespace

// The client, its poll and its entry group belong to the thread.
struct Publisher::Impl {
  Impl(std::uint16_t servicePort, const QString& serviceName, StateHandler stateHandler)
      : port(servicePort), name(ServiceNameFrom(serviceName)), handler(std::move(stateHandler)) {
    poll.reset(avahi_simple_poll_new());
    if (!poll) throw std::runtime_error("cannot publish _vardell5._tcp: out of memory");
  }

  bool Connect();
  void Disconnect();
  void Run();
  void End();
  void OnClientState(AvahiClient* from, AvahiClientState state);
  void OnGroupState(AvahiEntryGroup* from, AvahiEntryGroupState state);
  void Register(AvahiClient* from);
  bool AddService();
  void Rename();
  void Lost(const QString& why);
  void Report(const std::optional<QString>& published, const QString& message);

  const std::uint16_t port;
  std::string name;
  std::unique_ptr<AvahiSimplePoll, FreePoll> poll;
  std::unique_ptr<AvahiClient, FreeClient> client;
  AvahiEntryGroup* group = nullptr;  // the client's
  int error = 0;                     // why the last Connect failed
  bool isLost = false;               // the client is of no use any more
  std::atomic<bool> stopping{false};
  std::promise<int> connected;  // 0, or the error of the first Connect
  std::promise<void> ended;
  std::mutex handlerMutex;
  StateHandler handler;
};

// The callback may come before avahi_client_new has returned.
bool Publisher::Impl::Connect() {
  isLost = false;
  const auto onState = [](AvahiClient* from, AvahiClientState state, void* self) {
    static_cast<Impl*>(self)->OnClientState(from, state);
  };
  client.reset(avahi_client_new(avahi_simple_poll_get(poll.get()), AvahiClientFlags{}, onState,
                                this, &error));
  return client != nullptr;
}

void Publisher::Impl::Disconnect() {
  group = nullptr;
  client.reset();
}

void Publisher::Impl::OnClientState(AvahiClient* from, AvahiClientState state) {
  switch (state) {
    case AVAHI_CLIENT_S_RUNNING:
      return Register(from);
    case AVAHI_CLIENT_S_COLLISION:
    case AVAHI_CLIENT_S_REGISTERING:
      // The host is getting another name: the service is registered anew once it has it.
      if (group) avahi_entry_group_reset(group);
      return;
    case AVAHI_CLIENT_FAILURE:
      return Lost(QString::fromUtf8(avahi_strerror(avahi_client_errno(from))));
    case AVAHI_CLIENT_CONNECTING:
      return;
  }
}

void Publisher::Impl::Register(AvahiClient* from) {
  const auto onState = [](AvahiEntryGroup* ofGroup, AvahiEntryGroupState state, void* self) {
    static_cast<Impl*>(self)->OnGroupState(ofGroup, state);
  };
  if (!group) group = avahi_entry_group_new(from, onState, this);
  if (!group) return Lost(QString::fromUtf8(avahi_strerror(avahi_client_errno(from))));
  if (!avahi_entry_group_is_empty(group)) return;
  if (AddService()) (void)avahi_entry_group_commit(group);
}

// A name that this very daemon has already given away shows here, one of another machine's later.
bool Publisher::Impl::AddService() {
  for (;;) {
    const int result = avahi_entry_group_add_service(group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                     AvahiPublishFlags{}, name.c_str(),
                                                     kServiceType, nullptr, nullptr, port, nullptr);
    if (result == AVAHI_OK) return true;
    if (result != AVAHI_ERR_COLLISION) {
      Lost(QString::fromUtf8(avahi_strerror(result)));
      return false;
    }
    Rename();
  }
}

void Publisher::Impl::OnGroupState(AvahiEntryGroup* from, AvahiEntryGroupState state) {
  group = from;
  switch (state) {
    case AVAHI_ENTRY_GROUP_ESTABLISHED: {
      const QString published = QString::fromStdString(name);
      return Report(published, QStringLiteral("published as \"%1\"").arg(published));
    }
    case AVAHI_ENTRY_GROUP_COLLISION:
      Rename();
      (void)avahi_entry_group_reset(group);
      if (AddService()) (void)avahi_entry_group_commit(group);
      return;
    case AVAHI_ENTRY_GROUP_FAILURE:
      return Lost(QString::fromUtf8(
          avahi_strerror(avahi_client_errno(avahi_entry_group_get_client(from)))));
    case AVAHI_ENTRY_GROUP_UNCOMMITED:
    case AVAHI_ENTRY_GROUP_REGISTERING:
      return;
  }
}

void Publisher::Impl::Rename() {
  const std::unique_ptr<char, FreeText> next(avahi_alternative_service_name(name.c_str()));
  Report(std::nullopt, QStringLiteral("the service name \"%1\" is taken, trying \"%2\"")
                           .arg(QString::fromStdString(name), QString::fromUtf8(next.get())));
  name = next.get();
}

void Publisher::Impl::Lost(const QString& why) {
  if (isLost) return;
  isLost = true;
  Report(std::nullopt, QStringLiteral("not published any more: %1. Waiting for the Avahi daemon; "
                                      "agents of other machines cannot find this Server until then")
                           .arg(why));
}

void Publisher::Impl::Report(const std::optional<QString>& published, const QString& message) {
  const std::lock_guard lock(handlerMutex);
  if (handler) handler(published, message);
}

// Avahi keeps no client through a restart of its daemon: it is made anew until that works.
void Publisher::Impl::Run() {
  const bool isConnected = Connect();
  connected.set_value(isConnected ? 0 : error);
  while (!stopping) {
    if (client && isLost) Disconnect();
    if (!client && !Connect()) {
      (void)avahi_simple_poll_iterate(poll.get(), static_cast<int>(kRetryPause.count()));
      continue;
    }
    if (!isLost) (void)avahi_simple_poll_iterate(poll.get(), -1);
  }
  Disconnect();
  ended.set_value();
}

void Publisher::Impl::End() {
  stopping = true;
  avahi_simple_poll_wakeup(poll.get());
  (void)ended.get_future().wait_for(kDaemonsTime);
  const std::lock_guard lock(handlerMutex);
  handler = nullptr;
}

Publisher::Publisher(std::uint16_t port, const QString& serviceName, StateHandler changed)
    : impl_(std::make_shared<Impl>(port, serviceName, std::move(changed))) {
  std::future<int> connected = impl_->connected.get_future();
  std::thread([impl = impl_] { impl->Run(); }).detach();
  if (connected.wait_for(kDaemonsTime) != std::future_status::ready) {
    impl_->Report(std::nullopt,
                  QStringLiteral("not published yet: the Avahi daemon does not answer"));
  } else if (const int error = connected.get(); error != 0) {
    impl_->End();
    throw std::runtime_error(
        std::string("cannot publish _vardell5._tcp: ") + avahi_strerror(error) +
        ". Start the system bus and avahi-daemon, or use --no-publish and name this Server to the "
        "agents");
  }
}

Publisher::~Publisher() {
  impl_->End();
}

}  // namespace vardell::server
