// The file of a Unix stream socket that anybody may connect to.
#pragma once

#include <sys/stat.h>

#include <QByteArray>
#include <QString>

namespace vardell::server {

// A bound socket, not listening yet, whose file is removed with it. The folder is made (0755) where
// it is missing, the file gets the mode 0666. A socket file that nobody answers on is replaced;
// anything else in its place stays. Throws std::runtime_error with a line for people.
class ControlSocket {
 public:
  explicit ControlSocket(const QString& path);
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  // The descriptor becomes the caller's.
  int Release();

  // Removes the file now, unless another has taken its place.
  void Remove();

 private:
  const QByteArray path_;
  int fd_ = -1;
  struct stat made_ {};
};

}  // namespace vardell::server
