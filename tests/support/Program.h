// A real program under test: started with its own environment, its output collected in a file,
// ended with the object.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QByteArray>
#include <QFile>
#include <QString>
#include <map>
#include <string>
#include <vector>

#include "tests/support/Waiting.h"

namespace vardell::test {

class Program {
 public:
  struct Options {
    std::map<std::string, std::string> environment = {};  // set besides the test's own
    std::string output = {};                              // file for standard output and error
    bool ownSession = false;                              // setsid
    uid_t uid = 0;                                        // not 0: runs as this user
  };

  Program() = default;
  Program(const std::vector<std::string>& command, const Options& options)
      : output_(options.output) {
    pid_ = fork();
    if (pid_ == 0) Become(command, options);
    pidfd_ = OpenPidfd(pid_);
  }
  Program(const Program&) = delete;
  Program& operator=(Program&& other) noexcept {
    std::swap(pid_, other.pid_);
    std::swap(pidfd_, other.pidfd_);
    std::swap(output_, other.output_);
    std::swap(status_, other.status_);
    return *this;
  }
  Program(Program&& other) noexcept { *this = std::move(other); }
  ~Program() { End(SIGKILL); }

  pid_t pid() const { return pid_; }
  int pidfd() const { return pidfd_; }
  void Signal(int number) const { kill(pid_, number); }
  bool IsRunning() const { return pid_ > 0 && !WaitForExit(pidfd_, 0ms); }

  // The exit status, or -signal; -1000 where it does not end in time.
  int Wait(std::chrono::milliseconds patience = kPatience) {
    if (pid_ <= 0) return status_;
    if (!WaitForExit(pidfd_, patience)) return -1000;
    int status = 0;
    waitpid(pid_, &status, 0);
    close(pidfd_);
    pid_ = 0;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return status_;
  }

  void End(int number) {
    if (pid_ <= 0) return;
    Signal(number);
    if (number != SIGKILL && Wait(5s) != -1000) return;
    kill(pid_, SIGKILL);
    Wait();
  }

  QString Output() const {
    QFile file(QString::fromStdString(output_));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
  }
  bool WaitForOutput(const QString& text, std::chrono::milliseconds patience = kPatience) const {
    return WaitUntil([&] { return Output().contains(text); }, patience);
  }

 private:
  [[noreturn]] static void Become(const std::vector<std::string>& command, const Options& options) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (options.ownSession) setsid();
    if (!options.output.empty()) {
      const int fd = open(options.output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
      dup2(fd, 1);
      dup2(fd, 2);
    }
    for (const auto& [name, value] : options.environment) setenv(name.c_str(), value.c_str(), 1);
    if (options.uid != 0 &&
        (setgroups(0, nullptr) != 0 || setgid(options.uid) != 0 || setuid(options.uid) != 0)) {
      _exit(126);
    }
    std::vector<char*> arguments;
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }

  pid_t pid_ = 0;
  int pidfd_ = -1;
  int status_ = 0;
  std::string output_;
};

// Runs a command to its end and gives its output.
struct Finished {
  int status = 0;
  QString output;
};

inline Finished Run(const std::vector<std::string>& command, Program::Options options) {
  static int number = 0;
  options.output = "/tmp/vardell-test-" + std::to_string(getpid()) + "-" + std::to_string(++number);
  Finished finished;
  {
    Program program(command, options);
    finished.status = program.Wait();
    finished.output = program.Output();
  }
  unlink(options.output.c_str());
  return finished;
}

}  // namespace vardell::test
