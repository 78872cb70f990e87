// The link on loopback: a fetch's round trip beside a plain poll+recv client's in the same run (the
// counter "ratio" is the one divided by the other), and the codec.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "Common Sources/PropertyList.h"
#include "link/Frame.h"
#include "link/MessageEncoding.h"
#include "link/RequestExchange.h"
#include "link/VardellLoader.h"
#include "tests/support/FakeServiceDiscovery.h"
#include "tests/support/ScriptedPeer.h"

namespace vardell {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

const QString kUser = QStringLiteral("bob");
const QString kApp = QStringLiteral("org.example.app");

// All sixteen keys, as a Server sends them.
QByteArray LimitsReply() {
  QVariantMap limits = {{QStringLiteral("NextAutoUpdate"), 1.5e9}};
  for (const char* key : {"Credit", "AutoUpdateCoeff", "AutoUpdateValue", "WE Coeff", "WE Value",
                          "WD start", "WD stop", "WE start", "WE stop", "DQ Value"})
    limits[QLatin1String(key)] = 60;
  for (const char* key :
       {"Report Credit", "Enabled", "WD Curfew Enabled", "WE Curfew Enabled", "DQ Enabled"})
    limits[QLatin1String(key)] = true;
  return WritePropertyListXml(limits).value();
}

QByteArray Names() {
  QByteArray payload;
  AppendStringToData(payload, kUser);
  AppendStringToData(payload, kApp);
  return payload;
}

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "LinkBench: %s\n", what);
  std::abort();
}

// What a program would do that only wanted the bytes.
class PlainClient {
 public:
  explicit PlainClient(std::uint16_t port) : descriptor_(socket(AF_INET, SOCK_STREAM, 0)) {
    const QByteArray address = SocketAddressV4("127.0.0.1", port);
    const int on = 1;
    setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    Require(connect(descriptor_, reinterpret_cast<const sockaddr*>(address.constData()),
                    static_cast<socklen_t>(address.size())) == 0,
            "the plain client cannot connect");
  }
  ~PlainClient() { close(descriptor_); }

  void RoundTrip(const QByteArray& frame, std::size_t wanted) {
    Require(send(descriptor_, frame.constData(), static_cast<std::size_t>(frame.size()),
                 MSG_NOSIGNAL) == frame.size(),
            "the plain client cannot send");
    for (std::size_t got = 0; got < wanted;) {
      pollfd readable{descriptor_, POLLIN, 0};
      poll(&readable, 1, 2000);
      char bytes[4096];
      const ssize_t count = recv(descriptor_, bytes, sizeof bytes, 0);
      Require(count > 0, "the plain client's connection was lost");
      got += static_cast<std::size_t>(count);
    }
  }

 private:
  int descriptor_;
};

template <typename Operation>
double Time(Operation operation) {
  const auto began = Clock::now();
  operation();
  return Seconds(Clock::now() - began).count();
}

// Alternates the two clients, so that both meet the same machine.
template <typename Fetch>
void AgainstPlainClient(benchmark::State& state, Fetch fetch) {
  const QByteArray body = LimitsReply();
  test::ScriptedPeer peer({test::AnswerWith(body)});
  FakeServiceDiscovery discovery;
  discovery.ServeAt(peer.Port());
  ServerLink link(discovery);
  Require(ConnectToServer(link) == 0, "no connection");
  PlainClient plain(peer.Port());
  std::uint32_t reservedWord = 0;
  const QByteArray frame = BuildRequestFrame(RequestKind::FetchLimits, Names(), reservedWord);
  double ours = 0, theirs = 0;
  for (auto _ : state) {
    const double seconds = Time([&] { fetch(link); });
    ours += seconds;
    theirs += Time(
        [&] { plain.RoundTrip(frame, static_cast<std::size_t>(body.size()) + kReplyHeaderBytes); });
    state.SetIterationTime(seconds);
  }
  state.counters["plain_us"] = 1e6 * theirs / static_cast<double>(state.iterations());
  state.counters["ratio"] = ours / theirs;
}

void RoundTrip(benchmark::State& state) {
  const QByteArray payload = Names();
  AgainstPlainClient(state, [&](ServerLink& link) {
    QByteArray reply;
    Require(SendRequest(link, RequestKind::FetchLimits, payload, 2, true, &reply) == 0 &&
                !reply.isEmpty(),
            "no reply");
  });
}
BENCHMARK(RoundTrip)->UseManualTime()->Unit(benchmark::kMicrosecond);

void FetchAndParse(benchmark::State& state) {
  AgainstPlainClient(state, [](ServerLink& link) {
    Require(CopyLimitsDictionary(link, kUser, kApp).toMap().size() == 16, "no dictionary");
  });
}
BENCHMARK(FetchAndParse)->UseManualTime()->Unit(benchmark::kMicrosecond);

void EncodeReport(benchmark::State& state) {
  const LimitsRecord record;
  for (auto _ : state) benchmark::DoNotOptimize(AppendLimitsRecordToData(kUser, kApp, record));
}
BENCHMARK(EncodeReport);

void DecodeReport(benchmark::State& state) {
  const QByteArray payload = AppendLimitsRecordToData(kUser, kApp, LimitsRecord());
  QString user, identifier;
  LimitsRecord record;
  for (auto _ : state)
    Require(ParseReportPayload(payload, &user, &identifier, &record) == PayloadError::None,
            "the payload is refused");
}
BENCHMARK(DecodeReport);

}  // namespace
}  // namespace vardell

BENCHMARK_MAIN();
