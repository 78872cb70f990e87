#include "platform/linux/SessionView.h"

#include <xcb/xcb.h>

#include <memory>

#include "Common Sources/Caps.h"
#include "platform/linux/ApplicationScan.h"
#include "platform/linux/ProcessTable.h"
#include "platform/linux/WindowClasses.h"
#include "platform/linux/XcbDesktop.h"

namespace vardell {
namespace {

constexpr char kWithWindows[] = "windows";
constexpr char kWithoutWindows[] = "no windows";
constexpr char kEnd[] = "end";
constexpr int kFields = 8;

Windows WindowsOf(const std::optional<XcbDesktop>& desktop) {
  if (!desktop) return {};
  return {[&desktop] { return WindowOwnersOn(*desktop); },
          [&desktop](pid_t owner) { return WindowClassesOn(*desktop, owner); }};
}

QByteArray Field(const QString& text) {
  return text.toUtf8().toPercentEncoding();
}

QByteArray Line(const SeenApplication& seen) {
  const ApplicationInfo& info = seen.info;
  const QList<QByteArray> fields = {
      QByteArray::number(seen.process.pid),
      QByteArray::number(static_cast<qulonglong>(seen.process.started)),
      info.isBundle ? "1" : "0",
      Field(info.identifier.value_or(QString())),
      QByteArray::number(info.typeCode),
      QByteArray::number(info.creatorCode.value_or(0)),
      Field(info.path),
      Field(info.displayName)};
  return fields.join(' ') + '\n';
}

QString Text(const QByteArray& field) {
  return QString::fromUtf8(QByteArray::fromPercentEncoding(field));
}

std::optional<SeenApplication> ReadLine(const QByteArray& line) {
  const QList<QByteArray> fields = line.split(' ');
  if (fields.size() != kFields) return std::nullopt;
  bool isNumber[4] = {};
  SeenApplication seen;
  seen.process.pid = fields[0].toInt(&isNumber[0]);
  seen.process.started = fields[1].toULongLong(&isNumber[1]);
  seen.info.isBundle = fields[2] == "1";
  seen.info.typeCode = fields[4].toUInt(&isNumber[2]);
  const std::uint32_t creator = fields[5].toUInt(&isNumber[3]);
  if (seen.info.isBundle) {
    seen.info.identifier = Text(fields[3]);
  } else {
    seen.info.creatorCode = creator;
  }
  seen.info.path = Text(fields[6]);
  seen.info.displayName = Text(fields[7]);
  const bool isGood = isNumber[0] && isNumber[1] && isNumber[2] && isNumber[3] &&
                      seen.process.pid > 0 && (fields[2] == "0" || fields[2] == "1");
  return isGood ? std::optional(seen) : std::nullopt;
}

}  // namespace

SessionDisplay ReadSessionDisplay(const SessionAgent& agent) {
  return {ReadVariable(agent.process.pid, "DISPLAY"),
          ReadVariable(agent.process.pid, "XAUTHORITY")};
}

SessionView LookAtSession(const SessionAgent& agent, const SessionDisplay& display, pid_t leader) {
  qputenv("XAUTHORITY", display.authority);
  if (display.authority.isEmpty()) qunsetenv("XAUTHORITY");
  using Connection = std::unique_ptr<xcb_connection_t, void (*)(xcb_connection_t*)>;
  const Connection connection(
      display.display.isEmpty() ? nullptr : xcb_connect(display.display.constData(), nullptr),
      xcb_disconnect);
  const std::optional<XcbDesktop> desktop = XcbDesktop::On(connection.get());

  ApplicationScan scan(DesktopEntries(OwnApplicationFolders()), WindowsOf(desktop),
                       {agent.session, agent.program});
  SessionView view;
  for (const RunningApplication& running : scan.Look(leader)) {
    if (std::optional<ApplicationInfo> info = scan.Application(running.process)) {
      view.applications.push_back({running.process, std::move(*info)});
    }
  }
  view.hasWindows = desktop && !xcb_connection_has_error(connection.get());
  return view;
}

QByteArray WriteSessionView(const SessionView& view) {
  QByteArray text(view.hasWindows ? kWithWindows : kWithoutWindows);
  text += '\n';
  for (const SeenApplication& seen : view.applications) text += Line(seen);
  return text + kEnd + '\n';
}

std::optional<SessionView> ReadSessionView(const QByteArray& text) {
  if (static_cast<std::size_t>(text.size()) > kMaxSessionViewBytes) return std::nullopt;
  QList<QByteArray> lines = text.split('\n');
  if (lines.size() < 3 || !lines.takeLast().isEmpty() || lines.takeLast() != kEnd) {
    return std::nullopt;
  }
  SessionView view;
  const QByteArray first = lines.takeFirst();
  view.hasWindows = first == kWithWindows;
  if (!view.hasWindows && first != kWithoutWindows) return std::nullopt;
  for (const QByteArray& line : lines) {
    const std::optional<SeenApplication> seen = ReadLine(line);
    if (!seen) return std::nullopt;
    view.applications.push_back(*seen);
  }
  return view;
}

}  // namespace vardell
