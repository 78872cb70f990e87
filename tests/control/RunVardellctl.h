// Runs the real vardellctl, in the zone of Paris and in UTF-8.
#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <map>

#include "tests/control/ScriptedHttpPeer.h"

namespace vardell::test {

using namespace Qt::StringLiterals;

struct Outcome {
  int status = -1;
  QString output;
  QString error;
  std::vector<QByteArray> requests;
};

inline Outcome RunAt(const QString& control, const QStringList& words,
                     const std::map<QString, QString>& variables = {}) {
  QProcess program;
  QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
  environment.insert(u"TZ"_s, u"Europe/Paris"_s);
  environment.insert(u"LC_ALL"_s, u"C.UTF-8"_s);
  for (const auto& [name, value] : variables) environment.insert(name, value);
  program.setProcessEnvironment(environment);
  program.start(QStringLiteral(VARDELL_BIN_DIR "/vardellctl"),
                QStringList{u"--control"_s, control} + words);
  program.waitForFinished(30000);
  return {program.exitStatus() == QProcess::NormalExit ? program.exitCode() : -1,
          QString::fromUtf8(program.readAllStandardOutput()),
          QString::fromUtf8(program.readAllStandardError()),
          {}};
}

inline QStringList Words(const char* text) {
  return QString::fromUtf8(text).split(u'|');
}

// With a Server that answers so.
inline Outcome Vardellctl(const char* words, const std::vector<QByteArray>& answers) {
  const ScriptedHttpPeer server(answers);
  Outcome outcome = RunAt(server.path(), Words(words));
  outcome.requests = server.requests();
  return outcome;
}

inline QByteArray FirstLine(const QByteArray& request) {
  return request.left(request.indexOf("\r\n"));
}

inline QJsonObject BodyOf(const QByteArray& request) {
  return QJsonDocument::fromJson(request.mid(request.indexOf("\r\n\r\n") + 4)).object();
}

inline QByteArray Limit(int revision, int credit = 30) {
  return "{\"user\":\"anna\",\"identifier\":\"org.game\",\"credit\":" + QByteArray::number(credit) +
         ",\"revision\":" + QByteArray::number(revision) +
         ",\"limits\":{\"Enabled\":true,\"WD Curfew Enabled\":true,\"WD start\":480,\"WD "
         "stop\":1200,\"WE stop\":1439}}";
}

inline const QByteArray kNotFound =
    Answer(404, R"({"status":404,"code":"not-found","title":"No limit"})");

}  // namespace vardell::test
