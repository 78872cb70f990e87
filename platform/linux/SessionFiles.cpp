#include "platform/linux/SessionFiles.h"

#include <QFile>

#include "Common Sources/FileSystem.h"
#include "Common Sources/TestHooks.h"

namespace vardell {
namespace {

constexpr std::size_t kMaxSessionFileBytes = 16u << 10;

QByteArray Value(const QByteArray& file, const QByteArray& key) {
  const QString path = ProductPath(QStringLiteral("/run/systemd/") + QFile::decodeName(file));
  const auto text = LoadFile(QFile::encodeName(path), kMaxSessionFileBytes);
  if (!text) return {};
  for (const QByteArray& line : text->split('\n')) {
    if (line.startsWith(key + '=')) return line.mid(key.size() + 1);
  }
  return {};
}

}  // namespace

QByteArray SessionValue(const QByteArray& session, const QByteArray& key) {
  if (session.isEmpty() || session.contains('/')) return {};
  return Value("sessions/" + session, key);
}

QByteArray DisplaySessionOf(uid_t user) {
  return Value("users/" + QByteArray::number(user), "DISPLAY");
}

}  // namespace vardell
