// One look at the process table on an idle machine: nothing has changed since the last look. The
// argument is the number of processes that sleep besides those of the machine itself.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/linux/LinuxProcesses.h"
#include "tests/support/FakeSession.h"

namespace vardell {
namespace {

class Sleepers {
 public:
  // Half of them are another user's, where this program may do that.
  explicit Sleepers(int count) {
    for (int i = 0; i < count; ++i) {
      const pid_t pid = fork();
      if (pid == 0) Sleep(i % 2 == 0);
      if (pid > 0) pids_.push_back(pid);
    }
  }
  ~Sleepers() {
    for (const pid_t pid : pids_) kill(pid, SIGKILL);
    for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;

 private:
  [[noreturn]] static void Sleep(bool asAnother) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (asAnother && geteuid() == 0 && setuid(65534) != 0) _exit(1);
    for (;;) pause();
  }

  std::vector<pid_t> pids_;
};

// A process that is new is looked at more closely for some seconds.
void LetSettle(LinuxProcesses& processes) {
  using namespace std::chrono_literals;
  const auto end = std::chrono::steady_clock::now() + 6s;
  while (std::chrono::steady_clock::now() < end) {
    benchmark::DoNotOptimize(processes.RunningApplications());
    std::this_thread::sleep_for(200ms);
  }
}

void IdleScan(benchmark::State& state) {
  const Sleepers sleepers(static_cast<int>(state.range(0)));
  FakeSession session;
  LinuxProcesses processes(session, {});
  LetSettle(processes);
  for (auto _ : state) benchmark::DoNotOptimize(processes.RunningApplications());
}
BENCHMARK(IdleScan)->Arg(300)->Arg(3000)->Iterations(200)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace vardell

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
