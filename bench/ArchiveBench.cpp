// Compressed archives: packing and unpacking beside zlib alone over the same serialised bytes in
// the same run (the counter "ratio" is the one divided by the other; "bytes_per_second" counts
// serialised bytes). Values: 500,000 small objects, and records that make about 20 MB (6 MB as XML,
// whose documents are limited to 8 MiB).

#include <benchmark/benchmark.h>
#include <syslog.h>
#include <zlib.h>

#include <QtEndian>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "Common Sources/CompressedArchive.h"

namespace vardell {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "ArchiveBench: %s\n", what);
  std::abort();
}

QVariant SmallObjects() {
  QVariantList list;
  for (int i = 0; i < 250000; ++i) {
    list.append(qlonglong(i));
    list.append(QStringLiteral("item %1").arg(i));
  }
  return list;
}

QVariant Records(int count) {
  QVariantList list;
  for (int i = 0; i < count; ++i) {
    list.append(
        QVariantMap{{QStringLiteral("identifier"), QStringLiteral("org.example.app%1").arg(i)},
                    {QStringLiteral("credit"), qlonglong(i % 1440)},
                    {QStringLiteral("seconds"), i / 7.0},
                    {QStringLiteral("enabled"), i % 2 == 0},
                    {QStringLiteral("data"), QByteArray(64, static_cast<char>(i))}});
  }
  return list;
}

template <typename Operation>
double Time(Operation operation) {
  const auto began = Clock::now();
  operation();
  return Seconds(Clock::now() - began).count();
}

QByteArray Inflate(const QByteArray& blob) {
  uLongf size = qFromLittleEndian<std::uint32_t>(blob.constData());
  QByteArray out(static_cast<qsizetype>(size), Qt::Uninitialized);
  Require(uncompress(reinterpret_cast<Bytef*>(out.data()), &size,
                     reinterpret_cast<const Bytef*>(blob.constData()) + 20,
                     static_cast<uLong>(blob.size() - 20)) == Z_OK,
          "zlib fails");
  return out;
}

void Deflate(const QByteArray& bytes) {
  uLongf size = compressBound(static_cast<uLong>(bytes.size()));
  QByteArray out(static_cast<qsizetype>(size), Qt::Uninitialized);
  Require(compress(reinterpret_cast<Bytef*>(out.data()), &size,
                   reinterpret_cast<const Bytef*>(bytes.constData()),
                   static_cast<uLong>(bytes.size())) == Z_OK,
          "zlib fails");
}

template <typename Ours, typename Plain>
void Beside(benchmark::State& state, const QByteArray& serialised, Ours ours, Plain plain) {
  double ourSeconds = 0, plainSeconds = 0;
  for (auto _ : state) {
    const double seconds = Time(ours);
    ourSeconds += seconds;
    plainSeconds += Time(plain);
    state.SetIterationTime(seconds);
  }
  state.SetBytesProcessed(state.iterations() * serialised.size());
  state.counters["serialised"] = static_cast<double>(serialised.size());
  state.counters["ratio"] = ourSeconds / plainSeconds;
}

void Pack(benchmark::State& state, const QVariant& value) {
  const auto mode = static_cast<std::uint32_t>(state.range(0));
  const QByteArray serialised = Inflate(CreateCompressedArchive(value, mode));
  Beside(
      state, serialised,
      [&] { Require(!CreateCompressedArchive(value, mode).isNull(), "not packed"); },
      [&] { Deflate(serialised); });
}

void Unpack(benchmark::State& state, const QVariant& value) {
  const auto mode = static_cast<std::uint32_t>(state.range(0));
  const QByteArray blob = CreateCompressedArchive(value, mode);
  Beside(
      state, Inflate(blob),
      [&] { Require(CopyObjectFromCompressedArchive(blob, mode).isValid(), "not unpacked"); },
      [&] { Inflate(blob); });
}

void PackSmallObjects(benchmark::State& state) {
  Pack(state, SmallObjects());
}
void UnpackSmallObjects(benchmark::State& state) {
  Unpack(state, SmallObjects());
}
void PackRecords(benchmark::State& state) {
  Pack(state, Records(static_cast<int>(state.range(1))));
}
void UnpackRecords(benchmark::State& state) {
  Unpack(state, Records(static_cast<int>(state.range(1))));
}

void Modes(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseManualTime()->Unit(benchmark::kMillisecond);
  benchmark->Args({kArchiveXml, 18000});
  benchmark->Args({kArchiveSequential, 110000});
  benchmark->Args({kArchiveKeyed, 110000});
}

BENCHMARK(PackSmallObjects)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Arg(kArchiveSequential)
    ->Arg(kArchiveKeyed);
BENCHMARK(UnpackSmallObjects)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Arg(kArchiveSequential)
    ->Arg(kArchiveKeyed);
BENCHMARK(PackRecords)->Apply(Modes);
BENCHMARK(UnpackRecords)->Apply(Modes);

}  // namespace
}  // namespace vardell

int main(int argc, char** argv) {
  setlogmask(LOG_MASK(LOG_EMERG));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
