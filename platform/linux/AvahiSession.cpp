#include "platform/linux/AvahiSession.h"

#include <avahi-common/error.h>
#include <dbus/dbus.h>

#include <algorithm>
#include <limits>

namespace vardell {

using std::chrono::milliseconds;

int MillisecondsUntil(std::chrono::steady_clock::time_point deadline) {
  const auto left =
      std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<milliseconds::rep>(left, 0, std::numeric_limits<int>::max()));
}

bool IsAvahiAnswering(milliseconds limit) {
  DBusConnection* bus = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
  if (!bus) return false;
  dbus_connection_set_exit_on_disconnect(bus, FALSE);
  DBusMessage* call = dbus_message_new_method_call("org.freedesktop.Avahi", "/",
                                                   "org.freedesktop.DBus.Peer", "Ping");
  DBusMessage* reply = nullptr;
  if (call) {
    const int limitMs = static_cast<int>(std::clamp<milliseconds::rep>(limit.count(), 1, 60'000));
    reply = dbus_connection_send_with_reply_and_block(bus, call, limitMs, nullptr);
    dbus_message_unref(call);
  }
  if (reply) dbus_message_unref(reply);
  dbus_connection_close(bus);
  dbus_connection_unref(bus);
  return reply != nullptr;
}

std::unique_ptr<AvahiSession> AvahiSession::Open(int& error) {
  std::unique_ptr<AvahiSession> session(new AvahiSession);
  session->poll_ = avahi_simple_poll_new();
  if (!session->poll_) {
    error = AVAHI_ERR_NO_MEMORY;
    return nullptr;
  }
  int code = 0;
  session->client_ = avahi_client_new(avahi_simple_poll_get(session->poll_), AvahiClientFlags{},
                                      StateChanged, session.get(), &code);
  if (session->client_ && session->error_ == 0) return session;
  error = session->error_ != 0 ? session->error_ : code;
  return nullptr;
}

AvahiSession::~AvahiSession() {
  if (client_) avahi_client_free(client_);
  if (poll_) avahi_simple_poll_free(poll_);
}

void AvahiSession::Iterate(int limitMs) {
  if (avahi_simple_poll_iterate(poll_, limitMs) != 0 && error_ == 0)
    error_ = AVAHI_ERR_DISCONNECTED;
}

void AvahiSession::StateChanged(AvahiClient* client, AvahiClientState state, void* self) {
  if (state == AVAHI_CLIENT_FAILURE)
    static_cast<AvahiSession*>(self)->error_ =
        std::min(avahi_client_errno(client), static_cast<int>(AVAHI_ERR_FAILURE));
}

}  // namespace vardell
