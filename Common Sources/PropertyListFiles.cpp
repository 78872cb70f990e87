#include "Common Sources/PropertyListFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/PropertyList.h"
#include "Common Sources/TestHooks.h"

namespace vardell {

namespace {

QUrl WithExtension(QUrl url, const QString& extension) {
  url.setPath(url.path(QUrl::FullyDecoded) + u'.' + extension, QUrl::DecodedMode);
  return url;
}

bool Exists(const QByteArray& nativePath) {
  struct stat facts = {};
  return ::lstat(nativePath.constData(), &facts) == 0;
}

// `name` is a plain name within the file's own folder.
std::int32_t RenameFile(const QByteArray& nativePath, const QString& name) {
  const std::optional<QByteArray> nativeName = NativePath(name);
  if (!nativeName) return kFileBadName;
  const QByteArray renamed = nativePath.left(nativePath.lastIndexOf('/') + 1) + *nativeName;
  return std::rename(nativePath.constData(), renamed.constData()) == 0 ? 0
                                                                       : FileManagerStatus(errno);
}

std::int32_t Replace(const QUrl& target, const QByteArray& temporary, const QByteArray& xml) {
  // Each step whatever the one before reported: the order and its consequences are the contract.
  (void)StoreFile(temporary, xml);
  if (const auto path = NativePath(target)) (void)::unlink(path->constData());
  if (!Exists(temporary)) return -1;
  QString name;
  (void)GetFileNameFromURL(target, &name);
  return RenameFile(temporary, name);
}

}  // namespace

std::optional<QVariant> ReadPropertyListFromURL(const QUrl& url) {
  const std::optional<QByteArray> path = NativePath(url);
  if (!path) return std::nullopt;
  std::optional<QByteArray> bytes = LoadFile(*path, kMaxPropertyListBytes);
  if (!bytes) bytes = LoadFile(*path, kMaxPropertyListBytes);
  return bytes ? ReadPropertyListXml(*bytes) : std::nullopt;
}

std::optional<QVariant> ReadPropertyListFromPath(const QString& path) {
  return ReadPropertyListFromURL(FileUrl(path));
}

std::int32_t WritePropertyListToURL(const QVariant& propertyList, const QUrl& target,
                                    bool inPlace) {
  const std::optional<QByteArray> xml = WritePropertyListXml(propertyList);
  if (!xml) return -1;
  const std::optional<QByteArray> temporary =
      NativePath(WithExtension(target, QStringLiteral("tmp")));
  const std::optional<QByteArray> path = NativePath(target);
  if (!temporary || !path) return -1;
  return inPlace ? StoreFile(*path, *xml) : Replace(target, *temporary, *xml);
}

std::int32_t WritePropertyListToPath(const QVariant& propertyList, const QString& path,
                                     bool inPlace) {
  return WritePropertyListToURL(propertyList, FileUrl(path), inPlace);
}

bool SetPropertyListFileValue(const QString& path, const QString& key, const QVariant& value) {
  QVariantMap dictionary = ReadPropertyListFromPath(path).value_or(QVariant()).toMap();
  dictionary.insert(key, value);
  return WritePropertyListToPath(dictionary, path, true) == 0;
}

bool SetGlobalSettingsValue(const QString& key, const QVariant& value) {
  return SetPropertyListFileValue(ProductPath(QLatin1String(kGlobalSettingsPath)), key, value);
}

QUrl CopySupportFolderURL() {
  const QString folder = ProductPath(QLatin1String(kApplicationSupportPath));
  (void)QDir().mkpath(folder);
  return FileUrl(folder + QStringLiteral("/Vardell/"));
}

std::unique_ptr<char[]> CopyMessagesFilePath() {
  const QUrl file = CopySupportFolderURL().resolved(QUrl(QStringLiteral("messagesFile")));
  const std::optional<QByteArray> path = NativePath(file);
  if (!path) return nullptr;
  const auto size = static_cast<std::size_t>(path->size());
  auto buffer = std::make_unique<char[]>(size + 1);
  std::memcpy(buffer.get(), path->constData(), size);
  return buffer;
}

std::int32_t GetFileNameFromURL(const QUrl& url, QString* out) {
  out->clear();
  const QStringList components = url.path(QUrl::FullyDecoded).split(u'/', Qt::SkipEmptyParts);
  if (components.isEmpty()) return -1;
  if (components.last().size() >= kFileNameUnits) return kFileNameTooLong;
  *out = components.last();
  return 0;
}

}  // namespace vardell
