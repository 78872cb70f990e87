#include "platform/linux/DesktopEntries.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QLocale>
#include <QMap>
#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <string_view>

#include "Common Sources/TestHooks.h"
#include "platform/linux/ExecLine.h"

namespace vardell {
namespace {

constexpr qint64 kMaxEntryBytes = 256 * 1024;
constexpr std::size_t kMaxEntries = 20000;
constexpr int kMaxDepth = 4;

constexpr std::array<std::string_view, 24> kInterpreters = {
    "sh",    "bash", "dash", "zsh",    "ksh",  "fish",     "busybox",     "env",
    "perl",  "ruby", "node", "nodejs", "java", "gjs",      "gjs-console", "lua",
    "tclsh", "wish", "php",  "guile",  "mono", "electron", "wine",        "qemu-system-x86_64"};

// Their processes are the session itself, not something that a person started in it.
constexpr std::array<std::string_view, 18> kSessionParts = {
    "openbox",      "gnome-session", "gnome-shell", "plasmashell", "kwin_x11",      "xfwm4",
    "xfdesktop",    "xfce4-session", "xfce4-panel", "mutter",      "metacity",      "marco",
    "mate-session", "cinnamon",      "lxsession",   "lxpanel",     "vardell-agent", "tint2"};

template <std::size_t Size>
bool Contains(const std::array<std::string_view, Size>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

QByteArray BaseName(const QByteArray& path) {
  return path.mid(path.lastIndexOf('/') + 1);
}

QMap<QString, QString> ReadMainGroup(const QByteArray& text) {
  QMap<QString, QString> values;
  bool inside = false;
  for (const QByteArray& raw : text.split('\n')) {
    const QByteArray line = raw.trimmed();
    if (line.isEmpty() || line.startsWith('#')) continue;
    if (line.startsWith('[')) {
      if (inside) break;
      inside = line == "[Desktop Entry]";
      continue;
    }
    const qsizetype equals = line.indexOf('=');
    if (!inside || equals <= 0) continue;
    values.insert(QString::fromUtf8(line.left(equals).trimmed()),
                  QString::fromUtf8(line.mid(equals + 1).trimmed()));
  }
  return values;
}

QString LocalizedName(const QMap<QString, QString>& values, const QString& locale) {
  const QString language = locale.section(QLatin1Char('_'), 0, 0);
  for (const QString& variant : {locale, language}) {
    const QString name = values.value(QStringLiteral("Name[%1]").arg(variant));
    if (!name.isEmpty()) return name;
  }
  return values.value(QStringLiteral("Name"));
}

bool IsRootOwned(const QString& path) {
  struct stat status {};
  return stat(QFile::encodeName(path).constData(), &status) == 0 && status.st_uid == 0 &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

qint64 Stamp(const QString& folder) {
  struct stat status {};
  if (stat(QFile::encodeName(folder).constData(), &status) != 0) return 0;
  return status.st_mtim.tv_sec * 1000000000LL + status.st_mtim.tv_nsec;
}

}  // namespace

bool IsInterpreter(const QByteArray& path) {
  const QByteArray name = BaseName(path);
  const std::string_view view(name.constData(), static_cast<std::size_t>(name.size()));
  if (Contains(kInterpreters, view)) return true;
  for (const std::string_view versioned : {"python", "perl", "ruby", "lua", "tclsh", "php"}) {
    if (view.starts_with(versioned) &&
        view.find_first_not_of("0123456789.", versioned.size()) == std::string_view::npos) {
      return true;
    }
  }
  return false;
}

std::optional<DesktopEntry> ParseDesktopEntry(const QByteArray& text, const QString& locale) {
  const QMap<QString, QString> values = ReadMainGroup(text);
  if (values.value(QStringLiteral("Type")) != QLatin1String("Application")) return std::nullopt;
  if (values.value(QStringLiteral("Hidden")) == QLatin1String("true")) return std::nullopt;
  const std::optional<ExecLine> exec = ParseExecLine(values.value(QStringLiteral("Exec")));
  if (!exec) return std::nullopt;
  DesktopEntry entry;
  entry.name = LocalizedName(values, locale);
  if (entry.name.isEmpty()) return std::nullopt;
  entry.baseName = BaseName(exec->program);
  if (Contains(kSessionParts,
               {entry.baseName.constData(), static_cast<std::size_t>(entry.baseName.size())})) {
    return std::nullopt;
  }
  entry.program = ResolveProgram(exec->program);
  if (IsInterpreter(exec->program)) {
    entry.script = ResolveProgram(exec->firstArgument);
  } else if (IsScript(entry.program)) {
    entry.script = entry.program;
  }
  return entry;
}

std::vector<QString> ApplicationFolders(const QString& home) {
  std::vector<QString> folders;
  for (const char* folder :
       {"/usr/local/share/applications", "/usr/share/applications",
        "/var/lib/flatpak/exports/share/applications", "/var/lib/snapd/desktop/applications"}) {
    folders.push_back(ProductPath(QLatin1String(folder)));
  }
  folders.push_back(home + QLatin1String("/.local/share/flatpak/exports/share/applications"));
  folders.push_back(home + QLatin1String("/.local/share/applications"));
  return folders;
}

DesktopEntries::DesktopEntries(std::vector<QString> folders) : folders_(std::move(folders)) {}

bool DesktopEntries::Update() {
  QList<qint64> stamps;
  for (const QString& folder : folders_) stamps.push_back(Stamp(folder));
  if (stamps == stamps_) return false;
  stamps_ = stamps;
  Read();
  return true;
}

void DesktopEntries::Read() {
  byId_.clear();
  byProgram_.clear();
  byScript_.clear();
  byBaseName_.clear();
  entries_.clear();
  for (const QString& folder : folders_) ReadFolder(folder, {}, 0);
}

void DesktopEntries::ReadFolder(const QString& folder, const QString& prefix, int depth) {
  const QString locale = QLocale::system().name();
  const QDir directory(folder);
  for (const QFileInfo& info :
       directory.entryInfoList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
    if (entries_.size() >= kMaxEntries) return;
    if (info.isDir() && !info.isSymLink() && depth < kMaxDepth) {
      ReadFolder(info.filePath(), prefix + info.fileName() + QLatin1Char('-'), depth + 1);
    }
    if (!info.fileName().endsWith(QLatin1String(".desktop")) || !info.isFile()) continue;
    QFile file(info.filePath());
    if (info.size() > kMaxEntryBytes || !file.open(QIODevice::ReadOnly)) continue;
    std::optional<DesktopEntry> entry = ParseDesktopEntry(file.read(kMaxEntryBytes), locale);
    if (!entry) continue;
    entry->id = prefix + info.completeBaseName();
    entry->path = info.filePath();
    entry->rootOwned = IsRootOwned(entry->path);
    Add(std::move(*entry));
  }
}

void DesktopEntries::Add(DesktopEntry entry) {
  if (byId_.contains(entry.id)) return;
  const DesktopEntry* added =
      entries_.emplace_back(std::make_unique<DesktopEntry>(std::move(entry))).get();
  byId_.insert(added->id, added);
  const auto addOnce = [added](QHash<QByteArray, const DesktopEntry*>& index,
                               const QByteArray& key) {
    if (!key.isEmpty() && !index.contains(key)) index.insert(key, added);
  };
  addOnce(byScript_, added->script);
  if (IsInterpreter(added->baseName)) return;
  addOnce(byProgram_, added->program);
  addOnce(byBaseName_, added->baseName);
}

const DesktopEntry* DesktopEntries::ById(const QString& id) const {
  return byId_.value(id);
}
const DesktopEntry* DesktopEntries::ByProgram(const QByteArray& path) const {
  return byProgram_.value(path);
}
const DesktopEntry* DesktopEntries::ByScript(const QByteArray& path) const {
  return byScript_.value(path);
}
const DesktopEntry* DesktopEntries::ByBaseName(const QByteArray& name) const {
  return byBaseName_.value(name);
}

}  // namespace vardell
