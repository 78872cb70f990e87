// What the Server says of what it does: to the journal, with fields, where its standard error is
// the journal (JOURNAL_STREAM in the environment names it); otherwise, and where the journal does
// not take an entry, a line "vardell-server: ..." on standard error. Control characters, and
// whatever else would not show as it is, are escaped, so that no text from outside makes a line or
// a field.
#pragma once

#include <sys/types.h>

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <functional>
#include <optional>

namespace vardell::server {

// As syslog counts them.
enum class LogPriority { Error = 3, Warning = 4, Notice = 5, Info = 6 };

// One line, and what programs may want to know of it. Converts from and to a plain line, so that
// a hook or a caller that knows lines alone can take the place of one that knows more.
struct LogEvent {
  LogEvent(const QString& line) : message(line) {}
  // `name`: a literal, "kill-refused"
  LogEvent(const char* itsName, LogPriority itsPriority, const QString& line)
      : message(line), priority(itsPriority), name(itsName) {}
  operator const QString&() const { return message; }

  QString message;
  LogPriority priority = LogPriority::Info;
  const char* name = nullptr;  // VARDELL_EVENT; null: none
  // Whom and what it is about; empty: nobody.
  QString user = {};
  QString identifier = {};
  std::optional<std::uint32_t> peerUid = {};  // who asked
  std::optional<pid_t> pid = {};              // for which process
};

using LogHook = std::function<void(const LogEvent& event)>;

class Log {
 public:
  struct Place {
    QString journal;        // its socket
    QByteArray stream;      // JOURNAL_STREAM: "DEVICE:INODE"
    int standardError = 2;  // borrowed
  };
  // Of this process.
  static Place UsualPlace();

  explicit Log(const Place& place = UsualPlace());
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Thread-safe. Does not wait: an entry that neither the journal nor standard error takes at once
  // is lost.
  void Write(const LogEvent& event) const;

 private:
  bool WriteToJournal(const LogEvent& event) const;

  const Place place_;
  int socket_ = -1;  // -1: standard error is not the journal
};

// Printable UTF-8 on one line, cut at kMaxLogTextBytes; what is not printable becomes "\u001b".
QByteArray LogText(const QString& text);

// One field of an entry in the journal's native protocol; a value of several lines with its length.
QByteArray JournalField(const char* name, const QByteArray& value);

}  // namespace vardell::server
