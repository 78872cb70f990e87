#include "control/StatusCommands.h"

#include <QJsonArray>

#include "control/Tables.h"

namespace vardell::control {
namespace {

constexpr int kLedgerPage = 500;

Answer LedgerPage(const Command& command, const HttpClient& server, qint64 after) {
  return Get(server, "/v1/ledger?after=" + QByteArray::number(after) + "&user=" +
                         Segment(command.user) + "&identifier=" + Segment(command.identifier) +
                         "&limit=" + QByteArray::number(kLedgerPage));
}

}  // namespace

Result ShowStatus(const Command& command, const HttpClient& server) {
  const Answer answer = Get(server, "/v1/status");
  if (!answer.ok()) {
    return answer.failure;
  }
  return Done(command.json ? JsonText(answer.json) : StatusText(answer.json));
}

Result ShowLedger(const Command& command, const HttpClient& server, Terminal&) {
  QJsonArray rows;
  qint64 after = command.after;
  while (true) {
    const Answer page = LedgerPage(command, server, after);
    if (!page.ok()) {
      return page.failure;
    }
    const QJsonArray more = page.json[QStringLiteral("rows")].toArray();
    if (more.isEmpty()) {
      break;
    }
    for (const QJsonValue& row : more) {
      rows.append(row);
    }
    const qint64 last = more.last()[QStringLiteral("id")].toInteger();
    if (last <= after) {
      return Failed(QStringLiteral("the Server cannot be understood: its ledger does not go on"));
    }
    after = last;
  }
  return Done(command.json ? JsonText({{QStringLiteral("rows"), rows}}) : LedgerTable(rows));
}

}  // namespace vardell::control
