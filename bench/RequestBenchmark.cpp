// Asynchronous requests in flight: N = 1, 16 or 256 "RequestAsync" calls
// issued back to back, then the main loop run until all N were answered,
// through Lumora_Request (with logging off, with logging to a file, and with
// only error lines logged to a file) beside the same calls made with
// g_dbus_connection_call on a private connection of its own, whose callback
// unpacks the reply and copies the text. lumora-sim answers both.
//
// Per request: wall time, CPU time of this process (issuing, GDBus's worker
// thread, the replies' dispatch) and CPU time of the main-loop thread alone,
// which issues the requests and runs their callbacks.
//
// Only ratios within one run mean anything: run the variants interleaved
// (bench/run-request-benchmark.sh does).
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <lumora/lumora-api.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BenchService.h"
#include "BusCalls.h"
#include "LoopBench.h"
#include "TempDir.h"
#include "internal/ServiceContract.h"

namespace {

namespace contract = lumora::contract;
using lumora::bench::Logging;
using lumora::bench::SetLogging;

constexpr const char* kSubject = "Ctx/Media/Source/Info/Current";
constexpr const char* kLogFile = "/tmp/lumora-bench-request.log";
constexpr const char* kErrorJson = "{\"Status\":\"Error\"}";
// No answer for this long in a timed loop means a request was lost.
constexpr guint kStallCheckMs = 2000;

// Touched on the main-loop thread only. g_answered only grows.
long g_answered = 0;
long g_failed = 0;

GDBusConnection* g_raw = nullptr;
gint32 g_reqId = 0;

void OnLumoraAnswer(const char* /*subject*/, char* data, void* /*userData*/) {
    if (data == nullptr || strcmp(data, kErrorJson) == 0) ++g_failed;
    benchmark::DoNotOptimize(data);
    ++g_answered;
}

void OnRawAnswer(GObject* source, GAsyncResult* result, gpointer /*userData*/) {
    if (!lumora::bench::TakeRawAnswer(source, result)) ++g_failed;
    ++g_answered;
}

void IssueRaw() {
    g_dbus_connection_call(g_raw, contract::kBusName, contract::kObjectPath, contract::kInterface,
                           contract::kMethodRequestAsync,
                           g_variant_new("(iiiss)", static_cast<gint32>(getpid()), 5, ++g_reqId, kSubject, ""), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &OnRawAnswer, nullptr);
}

// One iteration: n requests issued back to back, then the main loop run
// until all n were answered.
template <typename Issue>
void RunBatches(benchmark::State& state, Issue issue) {
    const long n = state.range(0);
    g_failed = 0;
    lumora::bench::ProgressWatch watch(g_answered, kStallCheckMs);
    lumora::bench::PerItemClocks clocks;
    for (auto _ : state) {
        long target = g_answered + n;
        for (long i = 0; i < n; ++i) {
            if (!issue()) {
                state.SkipWithError("a request was refused");
                return;
            }
        }
        if (!watch.RunUntil(target)) {
            state.SkipWithError("answers stopped arriving");
            return;
        }
    }
    clocks.Report(state, static_cast<double>(state.iterations() * n));
    if (g_failed != 0) state.SkipWithError("a request was answered with an error");
}

void BM_RawRequest(benchmark::State& state) {
    RunBatches(state, [] {
        IssueRaw();
        return true;
    });
}

void BM_LumoraRequest(benchmark::State& state) {
    // 0 off, 1 everything to a file, 2 only error lines to a file (the
    // library writes two of those for every request).
    const char* logging = SetLogging(static_cast<Logging>(state.range(1)), kLogFile);
    RunBatches(state, [] { return Lumora_Request(kSubject, nullptr, &OnLumoraAnswer, nullptr); });
    SetLogging(Logging::kOff, kLogFile);
    state.SetLabel(logging);
}

BENCHMARK(BM_RawRequest)->ArgName("requests")->Arg(1)->Arg(16)->Arg(256)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_LumoraRequest)
    ->ArgNames({"requests", "log"})
    ->ArgsProduct({{1, 16, 256}, {0, 1, 2}})
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace

using lumora::bench::BenchService;
using lumora::bench::RunBenchmarks;

int main(int argc, char** argv) {
    BenchService service(kLogFile);
    lumora::test::TempDir dir;
    // Like a stock system bus, the daemon refuses more than 128 calls
    // awaiting a reply per connection: 256 requests in flight need room.
    std::string busConfig = lumora::bench::BusConfigWithRoomFor(dir, 1024);
    if (busConfig.empty() || !service.Start(busConfig)) return 1;
    g_raw = service.Raw();
    RunBenchmarks(argc, argv);
    return 0;
}
