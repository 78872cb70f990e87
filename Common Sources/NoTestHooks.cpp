#include "Common Sources/TestHooks.h"

namespace vardell {

QString TestRoot() {
  return {};
}

QString ProductPath(const QString& absolutePath) {
  return absolutePath;
}

std::chrono::milliseconds SecondLength() {
  return std::chrono::milliseconds(1000);
}

}  // namespace vardell
