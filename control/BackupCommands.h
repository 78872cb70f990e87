// backup, and what restore shares with it.
#pragma once

#include "control/Backup.h"
#include "control/Commands.h"

namespace vardell::control {

Result MakeBackup(const Command& command, const HttpClient& server, Terminal& terminal);

struct CollectedBackup {
  std::optional<Backup> backup;
  Result failure;
};

// The present state: from the Server, with these settings, and the stored list of applications.
CollectedBackup CollectBackup(const HttpClient& server, const QVariantMap& settings,
                              Terminal& terminal, const std::function<bool()>& isGivenUp = {});

struct WrittenBackup {
  qsizetype bytes = 0;
  QString problem;  // for people; then the file is as it was
};

// Said to be written once it has been read back.
WrittenBackup WriteBackupFile(const Backup& backup, const QString& path, Terminal& terminal);

// Asks for what keeps the Server busy for minutes, and shows how far it is. `isGivenUp`: ends it.
Answer AskPatiently(const HttpClient& server, HttpRequest request, const QString& what,
                    Terminal& terminal, const std::function<bool()>& isGivenUp);

}  // namespace vardell::control
