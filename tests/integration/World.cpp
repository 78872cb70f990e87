#include "tests/integration/World.h"

#include <pwd.h>
#include <sys/stat.h>

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>

#include "Common Sources/PropertyListFiles.h"

namespace vardell::test {
namespace {

std::string Bin(const std::string& program) {
  return std::string(VARDELL_BIN_DIR) + "/" + program;
}

void WriteFile(const std::string& path, const QByteArray& contents) {
  QFile file(QString::fromStdString(path));
  if (!file.open(QIODevice::WriteOnly)) abort();
  file.write(contents);
}

}  // namespace

World::World(int secondMs)
    : secondMs_(secondMs), root_(folder_.path().toStdString()), user_(getpwuid(getuid())->pw_name) {
  for (const char* path : {"usr/share/applications", "apps", "Library/Preferences",
                           "var/lib/vardell", "run/vardell"}) {
    QDir(folder_.path()).mkpath(QString::fromLatin1(path));
  }
  mkfifo(Path("never").c_str(), 0600);
}

World::~World() {
  agent.End(SIGKILL);
  EndAgentOfSession();
  leader.End(SIGKILL);
  server.End(SIGTERM);
}

std::map<std::string, std::string> World::Environment() const {
  return {{"VARDELL_TEST_ROOT", root_},
          {"VARDELL_TEST_SECOND_MS", std::to_string(secondMs_)},
          {"LC_ALL", "C.UTF-8"},
          {"LANGUAGE", ""}};
}

QString World::AgentOutput() const {
  QFile file(QString::fromStdString(Path("agent.log")));
  return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

std::string World::ExecutableOf(const std::string& identifier) const {
  // The folder's name is in it, because a program is also known by its file's name alone, and other
  // worlds on this machine have applications of the same names.
  return Path("apps/" + identifier + "-" + root_.substr(root_.rfind('-') + 1));
}

void World::InstallApplication(const std::string& identifier, const std::string& program) {
  QFile::copy(QString::fromStdString(program), QString::fromStdString(ExecutableOf(identifier)));
  WriteFile(Path("usr/share/applications/" + identifier + ".desktop"),
            QByteArray("[Desktop Entry]\nType=Application\nName=Toy ") + identifier.c_str() +
                "\nExec=" + ExecutableOf(identifier).c_str() + "\n");
}

Program World::Launch(const std::string& identifier, const std::vector<std::string>& arguments) {
  std::vector<std::string> command{ExecutableOf(identifier)};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return Program(command, {});
}

void World::WritePreferences(const QVariantMap& preferences) {
  const QString path =
      QString::fromStdString(Path("Library/Preferences/com.brenwick.vardell5.plist"));
  if (WritePropertyListToPath(preferences, path, true) != 0) abort();
}

void World::SetHomeSize(std::int64_t bytes) {
  const QString home = QString::fromStdString(root_ + getpwuid(getuid())->pw_dir);
  QFile file(home + QStringLiteral("/film"));
  if (!QDir().mkpath(home) || !file.open(QIODevice::WriteOnly) || !file.resize(bytes)) abort();
}

void World::StartServer(const std::string& listen, bool publish) {
  std::vector<std::string> command{Bin("vardell-server"), "--listen", listen};
  if (!publish) command.push_back("--no-publish");
  server = Program(command, {.environment = Environment(), .output = Path("server.log")});
  if (!WaitUntil([this] { return Ctl({"status"}).status == 0; })) {
    fprintf(stderr, "the Server did not start:\n%s\n", qPrintable(server.Output()));
  }
}

void World::StartAgent(const std::map<std::string, std::string>& environment) {
  auto all = Environment();
  all.insert(environment.begin(), environment.end());
  agent = Program({Bin("vardell-agent")},
                  {.environment = all, .output = Path("agent.log"), .ownSession = true});
}

void World::StartAgentInSession(const std::map<std::string, std::string>& environment) {
  auto all = Environment();
  all.insert(environment.begin(), environment.end());
  leader = Program({"/bin/sh", "-c",
                    "'" + Bin("vardell-agent") + "' & echo $! > '" + Path("agent.pid") +
                        "'; wait; read never < '" + Path("never") + "'"},
                   {.environment = all, .output = Path("agent.log"), .ownSession = true});
}

void World::EndAgentOfSession() {
  QFile file(QString::fromStdString(Path("agent.pid")));
  if (!file.open(QIODevice::ReadOnly)) return;
  const int pidfd = OpenPidfd(file.readAll().trimmed().toInt());
  if (pidfd < 0) return;
  syscall(SYS_pidfd_send_signal, pidfd, SIGKILL, nullptr, 0);
  WaitForExit(pidfd);
  close(pidfd);
}

bool World::StartAll() {
  StartServer();
  StartAgent();
  return agent.WaitForOutput(QStringLiteral("Preferences sync'ed.")) &&
         agent.WaitForOutput(QStringLiteral("Found service at host: "));
}

void World::StartWitness() {
  InstallApplication("witness");
  SetLimits("witness", {"Credit=100"});
  witness = Launch("witness");
}

Finished World::Ctl(std::vector<std::string> words) {
  words.insert(words.begin(), Bin("vardellctl"));
  return Run(words, {.environment = Environment()});
}

void World::SetLimits(const std::string& identifier, const std::vector<std::string>& values) {
  std::vector<std::string> words{"limits", "set", user_, identifier};
  words.insert(words.end(), values.begin(), values.end());
  const Finished finished = Ctl(words);
  if (finished.status != 0) fprintf(stderr, "vardellctl: %s\n", qPrintable(finished.output));
}

std::vector<int> World::Claims(const std::string& identifier) {
  const Finished finished = Ctl({"ledger", user_, identifier, "--json"});
  std::vector<int> claims;
  const QJsonDocument json = QJsonDocument::fromJson(finished.output.toUtf8());
  for (const QJsonValue row : json[QLatin1String("rows")].toArray()) {
    if (const QJsonValue claimed = row[QLatin1String("claimed")]; claimed.isDouble()) {
      claims.push_back(claimed.toInt());
    }
  }
  return claims;
}

std::optional<int> World::Credit(const std::string& identifier) {
  const Finished finished = Ctl({"limits", "show", user_, identifier, "--json"});
  const QJsonDocument json = QJsonDocument::fromJson(finished.output.toUtf8());
  const QJsonValue credit = json[QLatin1String("credit")];
  return credit.isDouble() ? std::optional(credit.toInt()) : std::nullopt;
}

bool World::WaitForClaims(const std::string& identifier, const std::vector<int>& claims,
                          std::chrono::milliseconds patience) {
  return WaitUntil([&] { return Claims(identifier) == claims; }, patience);
}

}  // namespace vardell::test
