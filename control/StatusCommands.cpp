#include "control/StatusCommands.h"

#include <QJsonArray>

#include "control/Tables.h"
#include "control/Terminal.h"

namespace vardell::control {
namespace {

constexpr int kLedgerPage = 500;
constexpr qsizetype kMostLedgerRows = 50'000;  // of one command; about 150 MB while it lasts

Answer LedgerPage(const Command& command, const HttpClient& server, qint64 after) {
  return Get(server, "/v1/ledger?after=" + QByteArray::number(after) + "&user=" +
                         Segment(command.user) + "&identifier=" + Segment(command.identifier) +
                         "&limit=" + QByteArray::number(kLedgerPage));
}

}  // namespace

Result ShowStatus(const Command& command, const HttpClient& server) {
  const Answer status = Get(server, "/v1/status");
  if (!status.ok()) {
    return status.failure;
  }
  // An older Server has no list of them.
  const Answer agents = Get(server, "/v1/agents");
  if (!agents.ok() && agents.status != 404) {
    return agents.failure;
  }
  const QJsonArray connected = agents.json[QStringLiteral("agents")].toArray();
  if (command.json) {
    QJsonObject json = status.json;
    json[QStringLiteral("connected")] = connected;
    return Done(JsonText(json));
  }
  QString text = StatusText(status.json, QStringLiteral(VARDELL_VERSION));
  text += AwayText(status.json);
  if (!connected.isEmpty()) text += QLatin1Char('\n') + AgentsTable(connected);
  return Done(text);
}

Result ShowMetrics(const Command& command, const HttpClient& server) {
  const Answer metrics = GetText(server, "/v1/metrics");
  if (!metrics.ok()) {
    return metrics.failure;
  }
  const QStringList lines = QString::fromUtf8(metrics.body).split(u'\n', Qt::SkipEmptyParts);
  QString text;
  QJsonObject json;
  for (const QString& line : lines) {
    text += Printable(line) + u'\n';
    const qsizetype space = line.lastIndexOf(u' ');
    if (!line.startsWith(u'#')) json[line.left(space)] = line.mid(space + 1).toDouble();
  }
  return Done(command.json ? JsonText(json) : text);
}

Result ShowLedger(const Command& command, const HttpClient& server, Terminal& terminal) {
  QJsonArray rows;
  qint64 after = command.after;
  bool isMore = false;
  while (!isMore) {
    terminal.Progress(QStringLiteral("Reading the ledger"), rows.size(), 0);
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
    isMore = rows.size() >= kMostLedgerRows;
  }
  const QJsonObject json{{QStringLiteral("rows"), rows}, {QStringLiteral("more"), isMore}};
  Result result = Done(command.json ? JsonText(json) : LedgerTable(rows));
  if (isMore) {
    result.notice =
        QStringLiteral("these are %1 rows, and there may be more: --after %2 shows the next ones")
            .arg(rows.size())
            .arg(after);
  }
  return result;
}

}  // namespace vardell::control
