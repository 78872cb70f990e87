#include "Common Sources/XmlText.h"

namespace vardell {

namespace {

bool IsXmlUnit(QChar c) {
  const char16_t unit = c.unicode();
  if (unit < 0x20) return unit == u'\t' || unit == u'\n' || unit == u'\r';
  return unit < 0xFFFE;
}

}  // namespace

bool IsXmlText(QStringView text) {
  for (qsizetype i = 0; i < text.size(); ++i) {
    if (!text[i].isSurrogate()) {
      if (!IsXmlUnit(text[i])) return false;
      continue;
    }
    const bool isPair =
        text[i].isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate();
    if (!isPair) return false;
    ++i;
  }
  return true;
}

}  // namespace vardell
