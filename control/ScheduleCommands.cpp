#include "control/ScheduleCommands.h"

#include <QFile>
#include <cstdio>

#include "Common Sources/Caps.h"
#include "control/LimitsCommands.h"
#include "control/ScheduleText.h"
#include "control/WholeFile.h"

namespace vardell::control {
namespace {

constexpr char kNoSuchFile[] =
    "Times are written like \"monday-friday 15:00-20:00\"; vardellctl schedule set --help tells "
    "more.";

LoadedFile ReadStandardInput() {
  QFile input;
  if (!input.open(stdin, QIODevice::ReadOnly)) {
    return {{}, false, QStringLiteral("standard input cannot be read")};
  }
  QByteArray bytes;
  while (static_cast<std::size_t>(bytes.size()) <= kMaxControlBodyBytes) {
    const QByteArray more = input.read(qint64{4096});
    if (more.isEmpty()) return {bytes, false, {}};
    bytes += more;
  }
  return {{},
          false,
          QStringLiteral("standard input has more than %1 KiB").arg(kMaxControlBodyBytes >> 10)};
}

Result ReadHours(const Command& command, ParsedSchedule* parsed) {
  if (command.path.isEmpty()) {
    *parsed = ParseScheduleLines(command.hours);
    return {};
  }
  const LoadedFile file = command.path == QLatin1String("-")
                              ? ReadStandardInput()
                              : LoadWholeFile(command.path, kMaxControlBodyBytes);
  if (file.isMissing) {
    return Failed(file.problem + QLatin1Char('\n') + QLatin1String(kNoSuchFile));
  }
  if (!file.bytes) return Failed(file.problem);
  *parsed = ParseScheduleFile(*file.bytes);
  return parsed->problem.isEmpty()
             ? Result()
             : Failed(QStringLiteral("%1: %2").arg(command.path, parsed->problem));
}

}  // namespace

Result ShowSchedule(const Command& command, const HttpClient& server) {
  const Answer answer = Get(server, LimitTarget(command.user, command.identifier));
  if (!answer.ok()) return answer.failure;
  const QString field = QStringLiteral("schedule");
  const QJsonValue schedule = answer.json[QStringLiteral("options")].toObject()[field];
  if (command.json) {
    return Done(JsonText({{field, schedule.isObject() ? schedule : QJsonValue()}}));
  }
  const QString subject = QStringLiteral("# ") + Subject(command.user, command.identifier);
  return Done(schedule.isObject()
                  ? subject +
                        QStringLiteral(" may be used at these times; a holiday counts "
                                       "instead of its days.\n") +
                        ScheduleTable(schedule.toObject())
                  : subject + QStringLiteral(" has no schedule.\n"));
}

Result ChangeSchedule(const Command& command, const HttpClient& server) {
  ParsedSchedule parsed;
  QJsonValue schedule;
  if (command.verb == Verb::ScheduleSet) {
    const Result failure = ReadHours(command, &parsed);
    if (failure.status != ExitStatus::Done) return failure;
    schedule = parsed.schedule;
  }
  Command change = command;
  change.limits = {{QStringLiteral("Schedule"), schedule}};
  Result result = command.verb == Verb::ScheduleSet ? SetLimits(change, server) : [&] {
    change.keys = {QStringLiteral("Schedule")};
    return UnsetLimits(change, server);
  }();
  if (result.status != ExitStatus::Done || parsed.notice.isEmpty()) return result;
  result.notice += (result.notice.isEmpty() ? QString() : QStringLiteral("\n")) + parsed.notice;
  return result;
}

}  // namespace vardell::control
