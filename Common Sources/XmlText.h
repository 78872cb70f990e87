// Which text an XML 1.0 document can hold at all. For PropertyList's reader and writer.
#pragma once

#include <QStringView>

namespace vardell {

// False for control characters other than tab, line feed and carriage return, for U+FFFE and
// U+FFFF, and for surrogates without their partner.
bool IsXmlText(QStringView text);

}  // namespace vardell
