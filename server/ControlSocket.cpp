#include "server/ControlSocket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace vardell::server {
namespace {

[[noreturn]] void Fail(const QByteArray& path, const std::string& why) {
  throw std::runtime_error("cannot open the control socket " + path.toStdString() + ": " + why);
}

std::string LastError() {
  return std::generic_category().message(errno);
}

sockaddr_un AddressOf(const QByteArray& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  constexpr qsizetype kMostBytes = sizeof(address.sun_path) - 1;
  if (path.isEmpty() || path.size() > kMostBytes || path.contains('\0'))
    Fail(path, "the path must have 1 to " + std::to_string(kMostBytes) + " bytes");
  std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
  return address;
}

// Whatever the umask says, everybody may pass through.
void MakeFolder(const QByteArray& path, const std::filesystem::path& folder) {
  std::error_code error;
  if (folder.empty() || std::filesystem::is_directory(folder, error)) return;
  if (folder.has_relative_path()) MakeFolder(path, folder.parent_path());
  if (mkdir(folder.c_str(), 0755) != 0 || chmod(folder.c_str(), 0755) != 0)
    Fail(path, "its folder " + folder.string() + " cannot be made: " + LastError());
}

int OpenSocket(const QByteArray& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) Fail(path, LastError());
  return fd;
}

bool SomebodyAnswers(const QByteArray& path, const sockaddr_un& address) {
  const int fd = OpenSocket(path);
  const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const int error = result == 0 ? 0 : errno;
  close(fd);
  return error != ECONNREFUSED && error != ENOENT;
}

void RemoveStale(const QByteArray& path, const sockaddr_un& address) {
  struct stat there {};
  if (lstat(path.constData(), &there) != 0) return;
  if (!S_ISSOCK(there.st_mode)) Fail(path, "there is a file that is no socket. Move it away");
  if (SomebodyAnswers(path, address))
    Fail(path, "another vardell-server answers there. Stop it, or choose another path");
  if (unlink(path.constData()) != 0) Fail(path, "the old one: " + LastError());
}

}  // namespace

ControlSocket::ControlSocket(const QString& path) : path_(QFile::encodeName(path)) {
  const sockaddr_un address = AddressOf(path_);
  MakeFolder(path_, std::filesystem::path(path_.toStdString()).parent_path());
  RemoveStale(path_, address);
  const int fd = OpenSocket(path_);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      chmod(path_.constData(), 0666) != 0 || lstat(path_.constData(), &made_) != 0) {
    const std::string why = LastError();
    close(fd);
    Fail(path_, why);
  }
  fd_ = fd;
}

ControlSocket::~ControlSocket() {
  if (fd_ >= 0) close(fd_);
  Remove();
}

void ControlSocket::Remove() {
  struct stat there {};
  if (lstat(path_.constData(), &there) == 0 && there.st_dev == made_.st_dev &&
      there.st_ino == made_.st_ino) {
    unlink(path_.constData());
  }
}

int ControlSocket::Release() {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

}  // namespace vardell::server
