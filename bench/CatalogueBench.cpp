// The catalogue of 2,000 applications: built from their desktop entries, beside merely reading the
// same files. Three in four lie in one folder, the others in folders directly inside and in a
// folder of lower precedence; each has a name in 40 languages, as the large desktops' own have.
// Needs a build with test hooks. The entries are made in /tmp.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <vector>

#include "limits/ApplicationsCatalogue.h"
#include "platform/linux/LinuxApplicationPreferences.h"
#include "platform/linux/LinuxInstalledApplications.h"
#include "tests/platform/Installation.h"
#include "tests/support/FakeApplicationPreferences.h"

namespace vardell {
namespace {

constexpr int kEntries = 2000;
constexpr int kLanguages = 40;

QByteArray EntryText(int number) {
  QByteArray text = "[Desktop Entry]\nVersion=1.0\nType=Application\n";
  for (const char* key : {"Name", "GenericName", "Comment"}) {
    text += QByteArray(key) + "=Application " + QByteArray::number(number) + '\n';
    for (int language = 0; language < kLanguages; ++language) {
      text += QByteArray(key) + "[l" + QByteArray::number(language) + "]=Εφαρμογή " +
              QByteArray::number(number) + '\n';
    }
  }
  return text + "Exec=true %U\nTryExec=true\nIcon=a\nTerminal=false\nCategories=Game;\n" +
         "\n[Desktop Action new]\nName=New\nExec=true --new\n";
}

class Machine {
 public:
  Machine() {
    const QString system = installed_.SystemFolder();
    const QString lower = installed_.Path("var/lib/flatpak/exports/share/applications");
    for (const QString& folder : {system + QStringLiteral("/kde"), lower}) QDir().mkpath(folder);
    for (int i = 0; i < kEntries; ++i) {
      const QString folder = i % 8 == 0   ? lower
                             : i % 8 == 1 ? system + QStringLiteral("/kde")
                                          : system;
      files_.push_back(folder + QStringLiteral("/org.example.App%1.desktop").arg(i));
      installed_.Write(files_.back(), EntryText(i));
    }
  }

  const std::vector<QString>& Files() const { return files_; }
  QString Path(const char* relative) const { return installed_.Path(relative); }

 private:
  test::Installation installed_;
  std::vector<QString> files_;
};

const Machine& TheMachine() {
  static const Machine machine;
  return machine;
}

void ReadFiles(benchmark::State& state) {
  std::vector<QByteArray> paths;
  for (const QString& file : TheMachine().Files()) paths.push_back(file.toUtf8());
  for (auto _ : state) {
    char block[16384];
    for (const QByteArray& path : paths) {
      const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC);
      while (read(fd, block, sizeof block) > 0) benchmark::DoNotOptimize(block[0]);
      close(fd);
    }
  }
}
BENCHMARK(ReadFiles)->Unit(benchmark::kMillisecond);

void BuildCatalogue(benchmark::State& state) {
  (void)TheMachine();
  qsizetype rows = 0;
  for (auto _ : state) {
    LinuxInstalledApplications installed{QStringList()};
    FakeApplicationPreferences preferences;
    BuildApplicationsCatalogue(installed, preferences);
    rows = preferences.values[QStringLiteral("Applications")].toList().size();
  }
  if (rows != kEntries + 1) state.SkipWithError("not all of them");
}
BENCHMARK(BuildCatalogue)->Unit(benchmark::kMillisecond);

void BuildAndStoreCatalogue(benchmark::State& state) {
  const QString path = TheMachine().Path("config.plist");
  for (auto _ : state) {
    QFile::remove(path);
    LinuxInstalledApplications installed{QStringList()};
    LinuxApplicationPreferences preferences(path);
    BuildApplicationsCatalogue(installed, preferences);
  }
}
BENCHMARK(BuildAndStoreCatalogue)->Unit(benchmark::kMillisecond)->UseRealTime();

void LoadCatalogue(benchmark::State& state) {
  const QString path = TheMachine().Path("config.plist");
  LinuxInstalledApplications installed{QStringList()};
  LinuxApplicationPreferences stored(path);
  BuildApplicationsCatalogue(installed, stored);
  for (auto _ : state) {
    LinuxApplicationPreferences preferences(path);
    benchmark::DoNotOptimize(CopyApplicationsCatalogue(installed, preferences));
  }
}
BENCHMARK(LoadCatalogue)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace vardell

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  setenv("LANGUAGE", "l7:l3", 1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
