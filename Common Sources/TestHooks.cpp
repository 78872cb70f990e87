#include "Common Sources/TestHooks.h"

namespace vardell {

QString TestRoot() {
  QString root = qEnvironmentVariable("VARDELL_TEST_ROOT");
  while (root.endsWith(u'/')) root.chop(1);
  return root;
}

QString ProductPath(const QString& absolutePath) {
  return TestRoot() + absolutePath;
}

std::chrono::milliseconds SecondLength() {
  bool isNumber = false;
  const int length = qEnvironmentVariable("VARDELL_TEST_SECOND_MS").toInt(&isNumber);
  const bool makesSense = isNumber && length >= 1 && length <= 60000;
  return std::chrono::milliseconds(makesSense ? length : 1000);
}

}  // namespace vardell
