// What the commands of vardellctl share: asking the Server, and ending with a result.
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include "control/HttpClient.h"

namespace vardell::control {

enum class ExitStatus { Done = 0, Failed = 1, Usage = 2, Unreachable = 3 };

struct Result {
  ExitStatus status = ExitStatus::Done;
  QString output;       // for standard output
  QString error;        // for standard error: one or two lines without the program's name
  QString notice = {};  // for standard error where it is done: what one should know, a line each
};

Result Done(const QString& output);
Result Failed(const QString& error);
Result Misused(const QString& error);

// What the Server said: JSON, or the Result to end with.
struct Answer {
  int status = 0;  // 0: it may or may not have been done, unless nobody was there
  bool wasReached = true;
  QString trouble;  // for people: why there is no answer, in a few words; empty where there is one
  QByteArray body;
  QJsonObject json;
  Result failure;
  bool ok() const { return failure.status == ExitStatus::Done && status < 300; }
};

// Each blocks until the answer is there.
Answer Ask(const HttpClient& server, const HttpRequest& request);
Answer Get(const HttpClient& server, const QByteArray& target);
// Of what is no JSON: `body` alone.
Answer GetText(const HttpClient& server, const QByteArray& target);

// A name as a part of a target.
QByteArray Segment(const QString& text);
QByteArray UserTarget(const QString& user);                              // "/v1/users/anna"
QByteArray LimitTarget(const QString& user, const QString& identifier);  // ".../limits/org.game"

// The text between quotes that a shell takes for one word, where it needs them.
QString ShellWord(const QString& text);

// "1 minute", "2 minutes".
QString MinutesText(qint64 minutes);

// Indented, for people and scripts; what a terminal would obey is escaped.
QString JsonText(const QJsonObject& json);
QByteArray Body(const QJsonObject& json);

// "computer" and "home" for the identifiers that stand for them; any other as it is, printable.
QString ShownIdentifier(const QString& identifier);

// "anna, computer": what a command is about.
QString Subject(const QString& user, const QString& identifier);

}  // namespace vardell::control
