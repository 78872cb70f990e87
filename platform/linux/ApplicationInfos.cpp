#include "platform/linux/ApplicationInfos.h"

#include <sys/xattr.h>

#include <QFile>

#include "platform/HotKeys.h"
#include "platform/linux/Interpreters.h"

namespace vardell {
namespace {

std::uint32_t CodeOf(const QByteArray& text) {
  std::uint32_t code = 0;
  for (int i = 0; i < 4; ++i) {
    code = code << 8 | static_cast<unsigned char>(i < text.size() ? text[i] : ' ');
  }
  return code;
}

std::uint32_t CreatorOf(const QByteArray& path) {
  char creator[4];
  if (getxattr(path.constData(), "user.creator", creator, sizeof creator) == sizeof creator) {
    return CodeOf(QByteArray(creator, sizeof creator));
  }
  return CodeOf(BaseName(path));
}

}  // namespace

ApplicationInfo InfoOfEntry(const QString& id, const QString& path, const QString& name) {
  ApplicationInfo info;
  info.path = path;
  info.isBundle = true;
  info.identifier = id;
  info.typeCode = FourCharCode("APPL");
  info.displayName = name;
  return info;
}

ApplicationInfo InfoOfBare(const QByteArray& path) {
  ApplicationInfo info;
  info.path = QFile::decodeName(path);
  info.creatorCode = CreatorOf(path);
  info.displayName = QFile::decodeName(BaseName(path));
  return info;
}

}  // namespace vardell
