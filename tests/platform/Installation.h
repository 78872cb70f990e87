// A machine's applications under a test root: entries of the system and of the user's home, with
// programs of their own. To be made before anything asks for the test root.
#pragma once

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>
#include <cstdlib>

namespace vardell::test {

class Installation {
 public:
  Installation() {
    setenv("VARDELL_TEST_ROOT", folder_.path().toUtf8().constData(), 1);
    for (const QString& path : {SystemFolder(), UserFolder(), Path("bin"), Path("home")})
      QDir().mkpath(path);
  }
  ~Installation() { unsetenv("VARDELL_TEST_ROOT"); }

  QString Path(const char* relative) const {
    return folder_.path() + QLatin1Char('/') + QString::fromUtf8(relative);
  }
  QByteArray Native(const char* relative) const { return Path(relative).toUtf8(); }
  QString SystemFolder() const { return Path("usr/share/applications"); }
  QString UserFolder() const {
    return folder_.path() + QString::fromUtf8(getpwuid(getuid())->pw_dir) +
           QStringLiteral("/.local/share/applications");
  }

  void Write(const QString& path, const QByteArray& text, int mode = 0644) const {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size()) abort();
    file.close();
    if (chmod(path.toUtf8().constData(), static_cast<mode_t>(mode)) != 0) abort();
  }
  // "@" in what follows stands for the test root.
  void AddSystemEntry(const char* id, const QByteArray& exec, const QByteArray& more = {}) const {
    AddEntry(SystemFolder(), id, exec, more);
  }
  void AddUserEntry(const char* id, const QByteArray& exec, const QByteArray& more = {}) const {
    AddEntry(UserFolder(), id, exec, more);
  }
  QByteArray AddProgram(const char* relative, const QByteArray& text = "no text") const {
    Write(Path(relative), QByteArray(text).replace('@', folder_.path().toUtf8()), 0755);
    return Native(relative);
  }
  QByteArray CopyProgram(const char* relative, const char* of) const {
    if (!QFile::copy(QString::fromUtf8(of), Path(relative))) abort();
    chmod(Native(relative).constData(), 0755);
    return Native(relative);
  }

 private:
  void AddEntry(const QString& folder, const char* id, const QByteArray& exec,
                const QByteArray& more) const {
    const QByteArray text =
        "[Desktop Entry]\nType=Application\nName=Some name\nExec=" + exec + '\n' + more + '\n';
    Write(folder + u'/' + QString::fromUtf8(id) + QStringLiteral(".desktop"),
          QByteArray(text).replace('@', folder_.path().toUtf8()));
  }

  QTemporaryDir folder_{QStringLiteral("/tmp/vardell-installation-XXXXXX")};
};

}  // namespace vardell::test
