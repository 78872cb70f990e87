#include "Common Sources/PrintableText.h"

#include <QChar>

namespace vardell {

bool IsPrintable(char32_t character) {
  switch (QChar::category(character)) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Other_Surrogate:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
      return false;
    default:
      return true;
  }
}

}  // namespace vardell
