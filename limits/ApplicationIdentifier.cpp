#include "limits/ApplicationIdentifier.h"

#include <algorithm>

namespace vardell {

namespace {

constexpr std::uint32_t kUnknownCode = 0x3F3F3F3F;  // "????"

QString HighestByteFirst(std::uint32_t code) {
  QString text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += QLatin1Char(static_cast<char>(code >> shift & 0xFF));
  }
  return text;
}

QString LowestByteFirst(std::uint32_t code) {
  QString text = HighestByteFirst(code);
  std::reverse(text.begin(), text.end());
  return text;
}

}  // namespace

std::optional<QString> MakeApplicationIdentifier(const ApplicationInfo& application) {
  if (application.isBundle) {
    if (application.identifier && !application.identifier->isEmpty()) {
      return application.identifier;
    }
    return QStringLiteral("com.brenwick.unknownapp.") + LowestByteFirst(application.typeCode) +
           LowestByteFirst(application.creatorCode.value_or(kUnknownCode));
  }
  if (!application.creatorCode) return std::nullopt;
  return QStringLiteral("com.brenwick.fakeID.") + HighestByteFirst(*application.creatorCode);
}

}  // namespace vardell
