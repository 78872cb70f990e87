// What the session manager notes of its sessions under /run/systemd: files that only root writes.
#pragma once

#include <sys/types.h>

#include <QByteArray>

namespace vardell {

// The value of a key ("TYPE", "LEADER") of a login session; empty where there is none.
QByteArray SessionValue(const QByteArray& session, const QByteArray& key);

// The session on that user's display; empty where there is none.
QByteArray DisplaySessionOf(uid_t user);

}  // namespace vardell
