// What the size of a tree of 200,000 files in 20,000 folders takes, beside du in the same run; to
// be run with --benchmark_enable_random_interleaving=true --benchmark_repetitions=10. The tree is
// made in the folder $TMPDIR, or else in /tmp.

#include "limits/FolderSize.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <QByteArray>
#include <cstdlib>
#include <string>

#include "bench/FolderTree.h"

namespace vardell {
namespace {

std::string MakeTemporaryFolder() {
  const char* folder = std::getenv("TMPDIR");
  std::string name = std::string(folder ? folder : "/tmp") + "/vardell-bench-XXXXXX";
  if (!mkdtemp(name.data())) std::exit(1);
  return name;
}

// Of this process and of those that it ran.
double ProcessorSeconds() {
  double seconds = 0;
  for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage usage{};
    getrusage(who, &usage);
    for (const timeval& time : {usage.ru_utime, usage.ru_stime}) {
      seconds += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    }
  }
  return seconds;
}

void Report(benchmark::State& state, double since) {
  state.counters["processor_ms"] =
      benchmark::Counter((ProcessorSeconds() - since) * 1000, benchmark::Counter::kAvgIterations);
}

void Walk(benchmark::State& state, const FolderTree& tree) {
  const QByteArray path = QByteArray::fromStdString(tree.root());
  const double began = ProcessorSeconds();
  for (auto _ : state) {
    if (GetFolderSize(path) != tree.size()) state.SkipWithError("another size");
  }
  Report(state, began);
}

// What it prints counts the folders themselves too, so only its success is looked at.
void Du(benchmark::State& state, const FolderTree& tree) {
  const std::string command = "exec du -s --apparent-size -b '" + tree.root() + "' > /dev/null";
  const double began = ProcessorSeconds();
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) state.SkipWithError("du failed");
  }
  Report(state, began);
}

}  // namespace
}  // namespace vardell

int main(int argc, char** argv) {
  using namespace vardell;
  benchmark::Initialize(&argc, argv);
  const FolderTree tree(MakeTemporaryFolder());
  for (auto* run : {Walk, Du}) {
    benchmark::RegisterBenchmark(run == Walk ? "GetFolderSize" : "du", run, std::cref(tree))
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  benchmark::RunSpecifiedBenchmarks();
}
