// Putting a backup in the place of what is there, so that whatever happens meanwhile nothing is
// lost: the present state is kept in a file first; then settings and applications; the Server,
// whose part is done at once or not at all, last. A step that fails, or Ctrl+C before the last one,
// undoes the earlier ones. A program that is killed leaves a note of the kept file (RestoreNote.h).
#pragma once

#include "control/Backup.h"
#include "control/Commands.h"
#include "control/HeldSignals.h"
#include "control/SettingsFile.h"
#include "control/StoredApplications.h"

namespace vardell::control {

// The Server's counts, where it would take the household; `check`: it is asked, no more.
Answer PutHousehold(const HttpClient& server, const QVariantMap& household, bool check,
                    Terminal& terminal, const std::function<bool()>& isGivenUp = {});

class Restoration {
 public:
  // `file`: where `wanted` was read from. All is borrowed.
  Restoration(const Backup& wanted, const QString& file, const HttpClient& server,
              Terminal& terminal);

  // Once. Done without output, or a failure that says how everything is now. Blocks.
  Result Run();

  const QString& keptPath() const { return kept_; }

 private:
  Result Replace();
  Result KeepPresent();
  Result ReplaceOnServer();
  Result Undo(Result why);
  Result AnswerLost(const QString& trouble);
  bool HasServerTaken();

  const Backup& wanted_;
  const QString file_;
  const HttpClient& server_;
  Terminal& terminal_;
  HeldSignals held_;
  SettingsEditor settings_;
  ApplicationsEditor applications_;
  QString kept_;
  bool isNoteOurs_ = false;
};

}  // namespace vardell::control
