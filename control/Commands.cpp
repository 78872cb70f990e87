#include "control/Commands.h"

#include "control/AppsCommands.h"
#include "control/BackupCommands.h"
#include "control/CompletionCommand.h"
#include "control/CreditCommands.h"
#include "control/LimitsCommands.h"
#include "control/RestoreCommands.h"
#include "control/ScheduleCommands.h"
#include "control/SettingsCommands.h"
#include "control/StatusCommands.h"
#include "control/UsageCommands.h"

namespace vardell::control {

Result Run(const Command& command, const HttpClient& server, Terminal& terminal) {
  switch (command.verb) {
    case Verb::Status:
      return ShowStatus(command, server);
    case Verb::Metrics:
      return ShowMetrics(command, server);
    case Verb::AppsList:
      return ListApplications(command);
    case Verb::AppsAdd:
      return AddApplication(command);
    case Verb::AppsRunning:
      return ShowRunning(command);
    case Verb::LimitsShow:
    case Verb::CreditShow:
      return ShowLimits(command, server, terminal);
    case Verb::LimitsSet:
      return SetLimits(command, server);
    case Verb::LimitsUnset:
      return UnsetLimits(command, server);
    case Verb::LimitsPreset:
      return ApplyPreset(command, server);
    case Verb::ScheduleShow:
      return ShowSchedule(command, server);
    case Verb::ScheduleSet:
    case Verb::ScheduleClear:
      return ChangeSchedule(command, server);
    case Verb::CreditSet:
      return SetCredit(command, server);
    case Verb::CreditAdd:
      return AddCredit(command, server);
    case Verb::Usage:
      return ShowUsage(command, server, terminal);
    case Verb::Ledger:
      return ShowLedger(command, server, terminal);
    case Verb::SettingsShow:
      return ShowSettings(command);
    case Verb::SettingsSet:
    case Verb::SettingsUnset:
      return ChangeSettings(command);
    case Verb::Backup:
      return MakeBackup(command, server, terminal);
    case Verb::Restore:
      return RestoreBackup(command, server, terminal);
    case Verb::Complete:
      return PrintCandidates(command, server);
    default:
      break;
  }
  return Failed(QStringLiteral("nothing to ask the Server"));
}

}  // namespace vardell::control
