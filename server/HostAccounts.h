// Names of the accounts that the hosts of a shared account have (Scope::UserAtHost): "anna@local",
// "anna@192.0.2.7". Pure.
#pragma once

#include <QString>

namespace vardell::server {

// `host`: as AgentConnection has it.
QString HostAccountName(const QString& user, const QString& host);

// Whose host account it is; empty where what is behind the last '@' is no host.
QString UserOfHostAccount(const QString& name);

}  // namespace vardell::server
