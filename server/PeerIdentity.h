// Who stands behind a TCP connection that comes from this machine, as the kernel says.
// Call right after accept and keep the answer: a client that has exited since then can no longer be
// told apart from another. Does not block; thread-safe.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>

namespace vardell::server {

// Whether an address (its port aside) is one of this machine's own, and whether a peer's is.
[[nodiscard]] bool IsOwnAddress(sockaddr_storage address);
[[nodiscard]] bool IsFromThisMachine(int socket);

// The user that owns the other end of `socket`, an accepted connection over IPv4 or IPv6 from this
// machine. No answer when that end is not an open connection of a process any more (a client that
// wrote and exited would show uid 0), when the peer is elsewhere, or when nobody can tell; callers
// that need to know close the connection then. A uid of 0 is an answer like another: it must not
// open anything by itself.
[[nodiscard]] std::optional<std::uint32_t> UserBehind(int socket);

// The two ways of finding out, each with the rules of UserBehind, which takes the second where the
// kernel does not offer the first.
enum class PeerLookup {
  Answered,
  NotIdentified,
  Unavailable,  // this way cannot be used here
};
[[nodiscard]] PeerLookup AskSocketDiagnostics(int socket, std::uint32_t* uid);
[[nodiscard]] PeerLookup ReadSocketTable(int socket, std::uint32_t* uid);

}  // namespace vardell::server
