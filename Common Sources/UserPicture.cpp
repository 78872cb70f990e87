#include "Common Sources/UserPicture.h"

#include <pwd.h>

#include <optional>
#include <vector>

#include "Common Sources/Caps.h"
#include "Common Sources/FileSystem.h"
#include "Common Sources/ImageDecoding.h"
#include "Common Sources/Localization.h"
#include "Common Sources/ShellHelpers.h"
#include "Common Sources/TestHooks.h"

namespace vardell {

namespace {

constexpr std::size_t kPictureAnswerBytes = 512;
constexpr qsizetype kPictureLabel = 9;  // "Picture: "

QByteArray CommandBytes(const char* command, const QString& userName, std::size_t limit) {
  const CommandOutput output =
      OpenCommandOutput(FormatLocalized(QLatin1String(command), {userName}));
  if (!output) return {};
  QByteArray bytes(static_cast<qsizetype>(limit), '\0');
  bytes.truncate(static_cast<qsizetype>(std::fread(bytes.data(), 1, limit, output.get())));
  return bytes;
}

QImage ImageNamedByDirectory(const QString& userName) {
  const QByteArray answer =
      CommandBytes("dscl . -read /Users/%1 Picture", userName, kPictureAnswerBytes);
  const qsizetype size = answer.size() - 1;  // without the final line feed
  if (size <= kPictureLabel) return {};
  QString path = QString::fromUtf8(answer.mid(kPictureLabel, size - kPictureLabel));
  path.remove(u'\r').remove(u'\n');
  while (path.startsWith(u' ')) path.remove(0, 1);
  return DecodeImageFile(path);
}

QImage ImageFromDirectory(const QString& userName) {
  if (!IsPortableName(userName)) return {};
  const QByteArray bytes = CommandBytes("dscl . -read /Users/%1 JPEGPhoto | tail -1 | xxd -r -p ",
                                        userName, kMaxPictureCommandBytes);
  const QImage image = bytes.isEmpty() ? QImage() : DecodeImage(bytes);
  return image.isNull() ? ImageNamedByDirectory(userName) : image;
}

QImage ImageOfAccountService(const QString& userName) {
  const bool isFileName =
      !userName.isEmpty() && !userName.contains(u'/') && userName != u"." && userName != u"..";
  if (!isFileName) return {};
  return DecodeImageFile(ProductPath(QStringLiteral("/var/lib/AccountsService/icons/") + userName));
}

QImage ImageInHomeFolder(const QString& userName) {
  const std::optional<QByteArray> name = EncodeUTF8(userName);
  if (!name) return {};
  std::vector<char> room(16384);
  struct passwd entry = {};
  struct passwd* found = nullptr;
  if (::getpwnam_r(name->constData(), &entry, room.data(), room.size(), &found) != 0 || !found) {
    return {};
  }
  return DecodeImageFile(ProductPath(QString::fromUtf8(found->pw_dir) + QStringLiteral("/.face")));
}

}  // namespace

QImage CopyUserPicture(const QString& userName) {
  for (const auto source : {ImageFromDirectory, ImageOfAccountService, ImageInHomeFolder}) {
    const QImage image = source(userName);
    if (!image.isNull()) return image;
  }
  return {};
}

}  // namespace vardell
