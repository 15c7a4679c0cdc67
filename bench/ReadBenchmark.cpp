// Lumora_Read's round trip against lumora-sim, beside the same "RequestSync"
// made with plain GDBus on a private connection of its own to the same bus.
// Only ratios within one run mean anything: run the variants interleaved
// (bench/run-read-benchmark.sh does).
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <lumora/lumora-api.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "BenchService.h"

namespace {

using lumora::bench::Logging;
using lumora::bench::SetLogging;

constexpr const char* kSubject = "Ctx/Media/Source/Info/Current";
constexpr const char* kLogFile = "/tmp/lumora-bench.log";

GDBusConnection* g_raw = nullptr;

void BM_LumoraRead(benchmark::State& state) {
    const char* label = SetLogging(state.range(0) != 0 ? Logging::kToFile : Logging::kOff, kLogFile);
    for (auto _ : state) {
        char* value = Lumora_ReadCurrentSourceInfo(nullptr);
        if (value == nullptr) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(value);
        free(value);
    }
    state.SetLabel(label);
}

// What an application would write without the library: build the request,
// call, unpack, keep a copy of the text.
void BM_RawGDBusRead(benchmark::State& state) {
    int reqId = 0;
    for (auto _ : state) {
        GVariant* reply = g_dbus_connection_call_sync(
            g_raw, "org.verdin.tv.lumora2", "/org/verdin/tv/lumora2", "org.verdin.tv.lumora.interface2", "RequestSync",
            g_variant_new("(iiiss)", static_cast<gint32>(getpid()), 1, ++reqId, kSubject, ""), nullptr,
            G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr);
        if (reply == nullptr) {
            state.SkipWithError("call failed");
            break;
        }
        gint32 code = 0;
        const gchar* text = nullptr;
        g_variant_get(reply, "(i&s)", &code, &text);
        char* copy = strdup(text);
        benchmark::DoNotOptimize(copy);
        free(copy);
        g_variant_unref(reply);
    }
}

BENCHMARK(BM_RawGDBusRead)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_LumoraRead)->Arg(0)->Arg(1)->MeasureProcessCPUTime()->UseRealTime();

}  // namespace

using lumora::bench::BenchService;
using lumora::bench::RunBenchmarks;

int main(int argc, char** argv) {
    BenchService service(kLogFile);
    if (!service.Start()) return 1;
    g_raw = service.Raw();
    RunBenchmarks(argc, argv);
    return 0;
}
