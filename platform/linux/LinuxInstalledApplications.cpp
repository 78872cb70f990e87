#include "platform/linux/LinuxInstalledApplications.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QSysInfo>
#include <algorithm>
#include <cerrno>
#include <memory>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/TestHooks.h"
#include "platform/linux/ApplicationInfos.h"
#include "platform/linux/ExecLine.h"
#include "platform/linux/Identify.h"
#include "platform/linux/Languages.h"

namespace vardell {
namespace {

constexpr QLatin1String kSuffix(".desktop");
constexpr std::size_t kMaxMachineInfoBytes = 16u << 10;

struct Listed {
  QByteArray name;
  bool isFolder = false;
};

bool IsFolder(const QByteArray& path, const dirent& item) {
  if (item.d_type != DT_UNKNOWN) return item.d_type == DT_DIR;
  struct stat status {};
  return lstat((path + '/' + item.d_name).constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

// By name, so that nothing depends on the file system's order. A link to a folder is none.
std::vector<Listed> ListFolder(const QString& folder) {
  const QByteArray path = QFile::encodeName(folder);
  const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(path.constData()), closedir);
  std::vector<Listed> items;
  while (open && items.size() < kMaxSystemDesktopEntries) {
    const dirent* item = readdir(open.get());
    if (!item) break;
    if (qstrcmp(item->d_name, ".") == 0 || qstrcmp(item->d_name, "..") == 0) continue;
    items.push_back({item->d_name, IsFolder(path, *item)});
  }
  std::sort(items.begin(), items.end(),
            [](const Listed& one, const Listed& other) { return one.name < other.name; });
  return items;
}

QString IdOfName(const QString& prefix, const QString& fileName) {
  return prefix + fileName.chopped(kSuffix.size());
}

void CollectIds(const QString& folder, const QString& prefix, int depth, std::size_t& left,
                QSet<QString>& ids) {
  for (const Listed& item : ListFolder(folder)) {
    if (left-- == 0) {
      left = 0;
      return;
    }
    const QString name = QFile::decodeName(item.name);
    if (item.isFolder && depth < kMaxDesktopEntryDepth) {
      CollectIds(folder + u'/' + name, prefix + name + u'-', depth + 1, left, ids);
    } else if (!item.isFolder && name.endsWith(kSuffix)) {
      ids.insert(IdOfName(prefix, name));
    }
  }
}

// The path below the folder; absent for one that is not below it.
std::optional<QString> Below(const QString& folder, const QString& path) {
  const QString begin = folder + u'/';
  if (!path.startsWith(begin)) return std::nullopt;
  return path.mid(begin.size());
}

std::optional<QString> BelowAUsersFolder(const QString& path) {
  for (const QLatin1String folder :
       {QLatin1String("/.local/share/applications/"),
        QLatin1String("/.local/share/flatpak/exports/share/applications/")}) {
    const qsizetype at = path.indexOf(folder);
    if (at >= 0) return path.mid(at + folder.size());
  }
  return std::nullopt;
}

bool HasProgram(const DesktopEntryKeys& keys, const ExecLine& exec) {
  const QByteArray tryExec = keys.tryExec.toUtf8();
  const bool isAnother = !tryExec.isEmpty() && tryExec != exec.program;
  return IsInstalledProgram(exec.program) && (!isAnother || IsInstalledProgram(tryExec));
}

ProcessFacts FactsOfFile(const QByteArray& path) {
  ProcessFacts facts;
  if (IsScript(path)) {
    facts.script = path;
    facts.scriptFile = IdOfFile(path);
  } else {
    facts.executable = path;
    facts.executableFile = IdOfFile(path);
  }
  return facts;
}

QString PrettyMachineName() {
  const QString path = ProductPath(QStringLiteral("/etc/machine-info"));
  const auto text = LoadFile(QFile::encodeName(path), kMaxMachineInfoBytes);
  if (!text) return {};
  for (const QByteArray& line : text->split('\n')) {
    if (!line.startsWith("PRETTY_HOSTNAME=")) continue;
    QByteArray value = line.mid(16).trimmed();
    const bool isQuoted =
        value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value.front();
    if (isQuoted) value = value.mid(1, value.size() - 2);
    return QString::fromUtf8(value.replace('\\', ""));
  }
  return {};
}

}  // namespace

QStringList CurrentDesktops() {
  return qEnvironmentVariable("XDG_CURRENT_DESKTOP").split(u':', Qt::SkipEmptyParts);
}

LinuxInstalledApplications::LinuxInstalledApplications(QStringList desktops)
    : folders_(ApplicationFolders({})),
      entries_(folders_),
      desktops_(std::move(desktops)),
      languages_(MessageLanguages()) {}

std::vector<QString> LinuxInstalledApplications::Folders() {
  idsBefore_.clear();
  std::vector<QString> paths;
  for (const ApplicationFolder& folder : folders_) paths.push_back(folder.path);
  return paths;
}

std::optional<LinuxInstalledApplications::Place> LinuxInstalledApplications::PlaceOf(
    const QString& folder) const {
  for (std::size_t i = 0; i < folders_.size(); ++i) {
    if (folder == folders_[i].path) return Place{i, {}};
    if (std::optional<QString> below = Below(folders_[i].path, folder)) {
      return Place{i, below->replace(u'/', u'-') + u'-'};
    }
  }
  return std::nullopt;
}

const QSet<QString>& LinuxInstalledApplications::IdsBefore(std::size_t folder) {
  if (idsBefore_.empty()) idsBefore_.emplace_back();
  while (idsBefore_.size() <= folder) {
    QSet<QString> ids = idsBefore_.back();
    std::size_t left = kMaxSystemDesktopEntries;
    CollectIds(folders_[idsBefore_.size() - 1].path, {}, 0, left, ids);
    idsBefore_.push_back(std::move(ids));
  }
  return idsBefore_[folder];
}

std::vector<InstalledItem> LinuxInstalledApplications::Items(const QString& folder) {
  const std::optional<Place> place = PlaceOf(folder);
  if (!place) return {};
  const QSet<QString>& masked = IdsBefore(place->folder);
  std::vector<InstalledItem> items;
  for (const Listed& listed : ListFolder(folder)) {
    const QString name = QFile::decodeName(listed.name);
    InstalledItem& item = items.emplace_back();
    item.path = folder + u'/' + name;
    item.isContainer = listed.isFolder;
    if (listed.isFolder || !name.endsWith(kSuffix)) continue;
    const QString id = IdOfName(place->prefix, name);
    if (!masked.contains(id)) item.application = Offered(item.path, id);
  }
  return items;
}

std::optional<ApplicationInfo> LinuxInstalledApplications::Offered(const QString& path,
                                                                   const QString& id) const {
  if (IsReservedId(id)) return std::nullopt;
  const auto text = LoadFile(QFile::encodeName(path), kMaxDesktopEntryBytes);
  if (!text) return std::nullopt;
  const auto keys = ReadDesktopEntryKeys(*text, languages_);
  if (!keys || keys->isHidden || !keys->isDisplayed || keys->isSessionPart ||
      keys->name.isEmpty() || !IsForThisDesktop(*keys)) {
    return std::nullopt;
  }
  const std::optional<ExecLine> exec = ParseExecLine(keys->exec);
  if (!exec || !HasProgram(*keys, *exec)) return std::nullopt;
  return InfoOfEntry(id, path, keys->name);
}

bool LinuxInstalledApplications::IsForThisDesktop(const DesktopEntryKeys& keys) const {
  for (const QString& desktop : desktops_) {
    if (keys.onlyShowIn.contains(desktop)) return true;
    if (keys.notShowIn.contains(desktop)) return false;
  }
  return desktops_.isEmpty() || keys.onlyShowIn.isEmpty();
}

std::variant<ApplicationInfo, NotApplication> LinuxInstalledApplications::Application(
    const QString& path) {
  const std::optional<QByteArray> native =
      NativePath(QDir::cleanPath(QDir().absoluteFilePath(path)));
  struct stat status {};
  if (!native || stat(native->constData(), &status) != 0) {
    return !native || errno == ENOENT || errno == ENOTDIR ? NotApplication::Missing
                                                          : NotApplication::Unreadable;
  }
  if (S_ISDIR(status.st_mode)) return NotApplication::Folder;
  if (native->endsWith(".desktop")) return EntryAt(QFile::decodeName(*native));
  const bool canRun = S_ISREG(status.st_mode) && (status.st_mode & 0111) != 0;
  if (!canRun) return NotApplication::NotExecutable;
  return ExecutableAt(*native);
}

std::optional<QString> LinuxInstalledApplications::IdOfEntry(const QString& path) const {
  for (const QString& name : {path, QFileInfo(path).canonicalFilePath()}) {
    std::optional<QString> below;
    for (const ApplicationFolder& folder : folders_) {
      if (!below) below = Below(folder.path, name);
    }
    if (!below) below = BelowAUsersFolder(name);
    if (below) return IdOfName({}, below->replace(u'/', u'-'));
  }
  return std::nullopt;
}

std::variant<ApplicationInfo, NotApplication> LinuxInstalledApplications::EntryAt(
    const QString& path) const {
  const std::optional<QString> id = IdOfEntry(path);
  if (!id) return NotApplication::Elsewhere;
  if (IsReservedId(*id)) return NotApplication::Reserved;
  const auto text = LoadFile(QFile::encodeName(path), kMaxDesktopEntryBytes);
  if (!text) return NotApplication::Unreadable;
  const auto keys = ReadDesktopEntryKeys(*text, languages_);
  if (!keys || keys->name.isEmpty()) return NotApplication::Incomplete;
  if (keys->isHidden) return NotApplication::Hidden;
  if (keys->isSessionPart) return NotApplication::SessionPart;
  const std::optional<ExecLine> exec = ParseExecLine(keys->exec);
  if (!exec) return NotApplication::Incomplete;
  if (!HasProgram(*keys, *exec)) return NotApplication::NoProgram;
  return InfoOfEntry(*id, path, keys->name);
}

std::variant<ApplicationInfo, NotApplication> LinuxInstalledApplications::ExecutableAt(
    const QByteArray& path) {
  char resolved[PATH_MAX];
  if (!realpath(path.constData(), resolved)) return NotApplication::Unreadable;
  const ProcessFacts facts = FactsOfFile(resolved);
  (void)entries_.Update();
  if (IsSessionPart(facts, entries_)) return NotApplication::SessionPart;
  const Identity identity = Identify(facts, entries_);
  if (!identity.entry) return InfoOfBare(resolved);
  return InfoOfEntry(identity.entry->id, identity.entry->path, identity.entry->name);
}

QString LinuxInstalledApplications::MachineName() {
  const QString name = PrettyMachineName();
  return name.isEmpty() ? QSysInfo::machineHostName() : name;
}

}  // namespace vardell
