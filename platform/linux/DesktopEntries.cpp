#include "platform/linux/DesktopEntries.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDirIterator>
#include <QFile>
#include <algorithm>
#include <array>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/TestHooks.h"
#include "platform/Processes.h"
#include "platform/linux/ExecLine.h"
#include "platform/linux/Interpreters.h"
#include "platform/linux/Languages.h"

namespace vardell {
namespace {

constexpr int kPausePerReading = 20;

// Their processes are the session itself, not something that a person started in it.
constexpr std::array<const char*, 31> kSessionParts = {"openbox",
                                                       "openbox-session",
                                                       "fluxbox",
                                                       "icewm",
                                                       "i3",
                                                       "gnome-session",
                                                       "gnome-shell",
                                                       "mutter",
                                                       "metacity",
                                                       "plasmashell",
                                                       "kwin_x11",
                                                       "kwin_wayland",
                                                       "ksmserver",
                                                       "startplasma-x11",
                                                       "xfwm4",
                                                       "xfdesktop",
                                                       "xfce4-session",
                                                       "xfce4-panel",
                                                       "xfsettingsd",
                                                       "marco",
                                                       "mate-session",
                                                       "mate-panel",
                                                       "cinnamon",
                                                       "cinnamon-session",
                                                       "lxsession",
                                                       "lxpanel",
                                                       "lxqt-session",
                                                       "lxqt-panel",
                                                       "tint2",
                                                       "sway",
                                                       "budgie-panel"};

// Identifiers that mean something else than an application: an entry of such a name would be taken
// for the session itself.
constexpr std::array<const char*, 3> kReserved = {kLoginWindowIdentifier, "com.brenwick.",
                                                  "com.tovmark.unknownapp"};

// Whoever owns the root folder owns the system.
uid_t SystemOwner() {
  struct stat root {};
  return stat(QFile::encodeName(ProductPath(QStringLiteral("/"))).constData(), &root) == 0
             ? root.st_uid
             : 0;
}

bool IsSystemsOwn(const QByteArray& path) {
  struct stat status {};
  return stat(path.constData(), &status) == 0 && status.st_uid == SystemOwner() &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

qint64 Stamp(const QString& folder) {
  struct stat status {};
  if (stat(QFile::encodeName(folder).constData(), &status) != 0) return 0;
  return status.st_mtim.tv_sec * 1000000000LL + status.st_mtim.tv_nsec;
}

// A folder's clock is coarse: one that has changed just now may change again without a trace.
qint64 SettledStamp(const QString& folder) {
  const qint64 stamp = Stamp(folder);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const qint64 age = now.tv_sec * 1000000000LL + now.tv_nsec - stamp;
  return age >= 0 && age < 100000000 ? -1 : stamp;
}

template <typename Key>
void AddTo(QHash<Key, DesktopEntries::List>& index, const Key& key, const DesktopEntry* entry) {
  DesktopEntries::List& list = index[key];
  const auto end = entry->isTrusted ? std::find_if(list.begin(), list.end(),
                                                   [](const auto* e) { return !e->isTrusted; })
                                    : list.end();
  list.insert(end, entry);
}

// A name proves nothing of a file that is known: it may be another one's in a mount namespace of
// its own. Only a file that has been put in the place of the one that was read still goes by its
// name.
DesktopEntries::List Find(const QHash<FileId, DesktopEntries::List>& byFile,
                          const QHash<QByteArray, DesktopEntries::List>& byPath,
                          const QByteArray& path, const FileId& file) {
  if (file.IsValid() && byFile.contains(file)) return byFile[file];
  const DesktopEntries::List named = byPath.value(path);
  const bool isThere = named.isEmpty() || !file.IsValid() || IdOfFile(path) == file;
  return isThere ? named : DesktopEntries::List();
}

// The account's, whatever the environment says.
QString HomeFolder() {
  std::vector<char> buffer(16384);
  passwd account{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &account, buffer.data(), buffer.size(), &found) != 0 || !found) {
    return {};
  }
  return QFile::decodeName(found->pw_dir);
}

}  // namespace

bool IsReservedId(const QString& id) {
  return std::any_of(kReserved.begin(), kReserved.end(), [&](const char* name) {
    return id.startsWith(QLatin1String(name), Qt::CaseInsensitive);
  });
}

std::vector<ApplicationFolder> ApplicationFolders(const QString& home) {
  std::vector<ApplicationFolder> folders;
  for (const char* folder :
       {"/usr/local/share/applications", "/usr/share/applications",
        "/var/lib/flatpak/exports/share/applications", "/var/lib/snapd/desktop/applications"}) {
    folders.push_back({ProductPath(QLatin1String(folder)), true});
  }
  for (const char* folder :
       {"/.local/share/applications", "/.local/share/flatpak/exports/share/applications"}) {
    if (!home.isEmpty()) folders.push_back({ProductPath(home + QLatin1String(folder)), false});
  }
  return folders;
}

std::vector<ApplicationFolder> OwnApplicationFolders() {
  return ApplicationFolders(HomeFolder());
}

struct DesktopEntries::Reading {
  bool isSystem = false;
  std::size_t left = 0;  // items that may still be looked at
  QStringList languages;
};

DesktopEntries::DesktopEntries(std::vector<ApplicationFolder> folders)
    : folders_(std::move(folders)) {}

bool DesktopEntries::HasChanged() const {
  QList<qint64> stamps;
  for (const QString& folder : visited_) stamps.push_back(Stamp(folder));
  return visited_.empty() || stamps != stamps_;
}

bool DesktopEntries::Update() {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point begin = Clock::now();
  if (begin < notBefore_ || !HasChanged()) return false;
  Read();
  const Clock::time_point end = Clock::now();
  notBefore_ = end + kPausePerReading * (end - begin);
  return true;
}

void DesktopEntries::Read() {
  *this = DesktopEntries(std::move(folders_));
  for (const ApplicationFolder& folder : folders_) {
    Reading reading{folder.isSystem,
                    folder.isSystem ? kMaxSystemDesktopEntries : kMaxUserDesktopEntries,
                    MessageLanguages()};
    ReadFolder(folder.path, {}, 0, reading);
  }
  for (const char* part : kSessionParts) AddSessionPart(ResolveProgram(part));
}

void DesktopEntries::ReadFolder(const QString& path, const QString& prefix, int depth,
                                Reading& reading) {
  visited_.push_back(path);
  stamps_.push_back(SettledStamp(path));
  QDirIterator items(path, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot);
  while (items.hasNext() && reading.left > 0) {
    items.next();
    --reading.left;
    const QFileInfo info = items.fileInfo();
    if (info.isDir() && !info.isSymLink() && depth < kMaxDesktopEntryDepth) {
      ReadFolder(info.filePath(), prefix + info.fileName() + QLatin1Char('-'), depth + 1, reading);
    } else if (info.fileName().endsWith(QLatin1String(".desktop"))) {
      ReadFile(info.filePath(), prefix + info.completeBaseName(), reading);
    }
  }
}

void DesktopEntries::ReadFile(const QString& path, const QString& id, const Reading& reading) {
  if (IsReservedId(id)) return;
  const QByteArray file = QFile::encodeName(path);
  const std::optional<QByteArray> text = LoadFile(file, kMaxDesktopEntryBytes);
  if (!text) return;
  std::optional<DesktopEntry> entry = ParseDesktopEntry(*text, reading.languages);
  if (!entry) return;
  entry->id = id;
  entry->path = path;
  entry->isTrusted = reading.isSystem && IsSystemsOwn(file);
  Add(std::move(*entry));
}

void DesktopEntries::AddSessionPart(const QByteArray& program) {
  if (program.isEmpty()) return;
  sessionPrograms_.insert(program);
  if (const FileId file = IdOfFile(program); file.IsValid()) sessionFiles_.insert(file);
}

void DesktopEntries::Add(DesktopEntry entry) {
  if (entry.isSessionPart) {
    if (entry.isTrusted) AddSessionPart(entry.program);
    return;
  }
  if (byId_.contains(entry.id)) return;
  const DesktopEntry* added =
      entries_.emplace_back(std::make_unique<DesktopEntry>(std::move(entry))).get();
  byId_.insert(added->id, added);
  byPath_.insert(added->path, added);
  if (!added->program.isEmpty()) AddTo(byProgram_, added->program, added);
  if (added->programFile.IsValid()) AddTo(byProgramFile_, added->programFile, added);
  if (!added->script.isEmpty()) AddTo(byScript_, added->script, added);
  if (added->scriptFile.IsValid()) AddTo(byScriptFile_, added->scriptFile, added);
  if (!added->baseName.isEmpty()) AddTo(byBaseName_, added->baseName, added);
  if (!added->windowClass.isEmpty()) AddTo(byWindowClass_, added->windowClass.toLower(), added);
}

const DesktopEntry* DesktopEntries::ById(const QString& id) const {
  return byId_.value(id);
}

const DesktopEntry* DesktopEntries::ByPath(const QString& path) const {
  return byPath_.value(path);
}

DesktopEntries::List DesktopEntries::ByProgram(const QByteArray& path, const FileId& file) const {
  return Find(byProgramFile_, byProgram_, path, file);
}

DesktopEntries::List DesktopEntries::ByScript(const QByteArray& path, const FileId& file) const {
  return Find(byScriptFile_, byScript_, path, file);
}

DesktopEntries::List DesktopEntries::ByBaseName(const QByteArray& name) const {
  return byBaseName_.value(name);
}

DesktopEntries::List DesktopEntries::ByWindowClass(const QString& windowClass) const {
  return byWindowClass_.value(windowClass.toLower());
}

bool DesktopEntries::IsSessionPart(const QByteArray& path, const FileId& file) const {
  if (file.IsValid() && sessionFiles_.contains(file)) return true;
  return sessionPrograms_.contains(path) && (!file.IsValid() || IdOfFile(path) == file);
}

}  // namespace vardell
