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

#include "SimProcess.h"
#include "TestBus.h"

namespace {

constexpr const char* kSubject = "Ctx/Media/Source/Info/Current";
constexpr const char* kLogFile = "/tmp/lumora-bench.log";

GDBusConnection* g_raw = nullptr;

// Logging is looked up per record, so it can be switched between benchmarks.
void SetLogging(bool toFile) {
    if (toFile) {
        setenv("LUMORA_LOG_FILE", kLogFile, 1);
        setenv("LUMORA_LOG_LEVEL", "debug", 1);
    } else {
        setenv("LUMORA_LOG_LEVEL", "none", 1);
    }
}

void BM_LumoraRead(benchmark::State& state) {
    SetLogging(state.range(0) != 0);
    for (auto _ : state) {
        char* value = Lumora_ReadCurrentSourceInfo(nullptr);
        if (value == nullptr) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(value);
        free(value);
    }
    state.SetLabel(state.range(0) != 0 ? "logging to a file" : "logging off");
}

// What an application would write without the library: build the request,
// call, unpack, keep a copy of the text.
void BM_RawGDBusRead(benchmark::State& state) {
    int reqId = 0;
    for (auto _ : state) {
        GVariant* reply = g_dbus_connection_call_sync(
            g_raw, "org.verdin.tv.lumora2", "/org/verdin/tv/lumora2", "org.verdin.tv.lumora.interface2",
            "RequestSync", g_variant_new("(iiiss)", static_cast<gint32>(getpid()), 1, ++reqId, kSubject, ""), nullptr,
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

int main(int argc, char** argv) {
    // The simulator inherits this: it stays quiet in every variant.
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    lumora::test::TestBus bus;
    lumora::test::SimProcess sim;
    if (!bus.Start() || !sim.Start()) {
        fprintf(stderr, "cannot start the private bus and lumora-sim\n");
        return 1;
    }
    g_raw = g_dbus_connection_new_for_address_sync(
        bus.Address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (g_raw == nullptr || !Lumora_InitService() || !LMFServiceAPI::IsAvailable()) {
        fprintf(stderr, "the service is not available\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    Lumora_FiniService();
    g_object_unref(g_raw);
    unlink(kLogFile);
    return 0;
}
