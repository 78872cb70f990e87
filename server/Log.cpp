#include "server/Log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QFile>
#include <QtEndian>
#include <algorithm>

#include "Common Sources/Caps.h"
#include "Common Sources/PrintableText.h"
#include "Common Sources/TestHooks.h"

namespace vardell::server {
namespace {

constexpr char kProgram[] = "vardell-server";

bool IsStream(int descriptor, const QByteArray& stream) {
  struct stat facts {};
  if (stream.isEmpty() || fstat(descriptor, &facts) != 0) return false;
  return stream == QByteArray::number(qulonglong{facts.st_dev}) + ':' +
                       QByteArray::number(qulonglong{facts.st_ino});
}

QByteArray JournalEntry(const LogEvent& event) {
  QByteArray entry =
      JournalField("MESSAGE", LogText(event.message)) +
      JournalField("PRIORITY", QByteArray::number(static_cast<int>(event.priority))) +
      JournalField("SYSLOG_IDENTIFIER", kProgram);
  if (event.name) entry += JournalField("VARDELL_EVENT", event.name);
  if (!event.user.isEmpty()) entry += JournalField("VARDELL_USER", LogText(event.user));
  if (!event.identifier.isEmpty()) {
    entry += JournalField("VARDELL_IDENTIFIER", LogText(event.identifier));
  }
  if (event.peerUid) {
    entry += JournalField("VARDELL_PEER_UID", QByteArray::number(*event.peerUid));
  }
  if (event.pid) entry += JournalField("VARDELL_PID", QByteArray::number(*event.pid));
  return entry;
}

// A pipe or socket that is ready takes this much at once.
void WriteLine(int descriptor, const QByteArray& text) {
  const QByteArray line = QByteArray(kProgram) + ": " + text + '\n';
  pollfd ready{descriptor, POLLOUT, 0};
  if (poll(&ready, 1, 0) != 1 || !(ready.revents & POLLOUT)) return;
  (void)!write(descriptor, line.constData(), static_cast<std::size_t>(line.size()));
}

}  // namespace

QByteArray LogText(const QString& text) {
  QByteArray line;
  for (const uint character : text.toUcs4()) {
    const QByteArray piece =
        IsPrintable(character)
            ? QString::fromUcs4(reinterpret_cast<const char32_t*>(&character), 1).toUtf8()
            : "\\u" + QByteArray::number(character, 16).rightJustified(4, '0');
    if (static_cast<std::size_t>(line.size() + piece.size()) > kMaxLogTextBytes) break;
    line += piece;
  }
  return line;
}

QByteArray JournalField(const char* name, const QByteArray& value) {
  if (!value.contains('\n')) return QByteArray(name) + '=' + value + '\n';
  QByteArray length(8, '\0');
  qToLittleEndian(quint64(value.size()), length.data());
  return QByteArray(name) + '\n' + length + value + '\n';
}

Log::Place Log::UsualPlace() {
  return {ProductPath(QStringLiteral("/run/systemd/journal/socket")), qgetenv("JOURNAL_STREAM"),
          STDERR_FILENO};
}

Log::Log(const Place& place) : place_(place) {
  if (IsStream(place.standardError, place.stream)) {
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  }
}

Log::~Log() {
  if (socket_ >= 0) close(socket_);
}

void Log::Write(const LogEvent& event) const {
  if (!WriteToJournal(event)) WriteLine(place_.standardError, LogText(event.message));
}

// Addressed each time: a journal that was started again has another socket of that name.
bool Log::WriteToJournal(const LogEvent& event) const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const QByteArray path = QFile::encodeName(place_.journal);
  if (socket_ < 0 || static_cast<std::size_t>(path.size()) >= sizeof(address.sun_path))
    return false;
  std::copy(path.begin(), path.end(), address.sun_path);
  const QByteArray entry = JournalEntry(event);
  return sendto(socket_, entry.constData(), static_cast<std::size_t>(entry.size()),
                MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                sizeof(address)) == entry.size();
}

}  // namespace vardell::server
