#include "platform/linux/LinuxSystem.h"

#include <pwd.h>
#include <unistd.h>

#include <QFile>
#include <vector>

namespace vardell {

SystemVersion LinuxSystem::Version() {
  return {10, 10};
}

QString LinuxSystem::UserShortName() {
  std::vector<char> buffer(16384);
  passwd account{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &account, buffer.data(), buffer.size(), &found) == 0 && found) {
    return QFile::decodeName(found->pw_name);
  }
  return QString::number(getuid());
}

}  // namespace vardell
