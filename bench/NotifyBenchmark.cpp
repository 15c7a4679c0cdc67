// Notification delivery: the service's "Response" signal, emitted in bursts by
// a process of its own (signal_emitter) with no destination, received through
// the library by 1, 10 or 100 callbacks of one subject, also with 1,000 other
// subjects subscribed beside it; next to raw GDBus signal subscriptions (1,
// 10 or 100 handlers) on a private connection of its own receiving the same
// signals. lumora-sim answers the library's "ServiceEnable" and subscribe
// calls.
//
// One iteration is one burst of kBurst signals, run until every callback got
// every one of them. Per notification: wall time from the burst's command to
// its last delivery, CPU time of this process (GDBus's worker thread reads and
// parses, the main-loop thread dispatches; the emitter is elsewhere) and CPU
// time of the main-loop thread alone. Only one side listens during a run, so
// that neither pays for messages the other subscribed to.
//
// Only ratios within one run mean anything: run the variants interleaved
// (bench/run-notify-benchmark.sh does).
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <lumora/lumora-api.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "BenchService.h"
#include "BusCalls.h"
#include "Emitter.h"
#include "LoopBench.h"
#include "internal/ServiceContract.h"

namespace {

namespace contract = lumora::contract;
using lumora::bench::Logging;
using lumora::bench::SetLogging;

constexpr const char* kSubject = "Ctx/Media/Source/Changed";
constexpr const char* kLogFile = "/tmp/lumora-bench-notify.log";
constexpr int kBurst = 100;
constexpr size_t kMaxCallbacks = 100;
// No delivery for this long in a timed loop means signals were lost.
constexpr guint kStallCheckMs = 2000;

// Touched on the main-loop thread only. g_delivered only grows.
long g_delivered = 0;
std::array<long, kMaxCallbacks> g_hits{};

// The callbacks: one function per index, since the library keeps one
// callback per (subject, callback) pair. Each counts into a slot of its own,
// which also keeps the compiler from folding them into one address.
template <size_t I>
void Counted(const char* /*subject*/, char* data, void* /*userData*/) {
    benchmark::DoNotOptimize(data);
    ++g_hits[I];
    ++g_delivered;
}

template <size_t... I>
constexpr std::array<LumoraSubjectCb, sizeof...(I)> MakeCallbacks(std::index_sequence<I...>) {
    return {{&Counted<I>...}};
}
constexpr std::array<LumoraSubjectCb, kMaxCallbacks> kCallbacks =
    MakeCallbacks(std::make_index_sequence<kMaxCallbacks>());

std::string OtherSubject(int i) {
    char subject[32];
    snprintf(subject, sizeof subject, "Bench/Other/%04d", i);
    return subject;
}

// What an application would write without the library: check the signal's
// shape, unpack it, keep only its subject, hand the data on.
void OnRawSignal(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                 const gchar* /*interface*/, const gchar* /*signal*/, GVariant* parameters, gpointer userData) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(iss)"))) return;
    gint32 unused = 0;
    const gchar* subject = nullptr;
    const gchar* data = nullptr;
    g_variant_get(parameters, "(i&s&s)", &unused, &subject, &data);
    if (strcmp(subject, kSubject) != 0) return;
    kCallbacks[GPOINTER_TO_SIZE(userData)](subject, const_cast<char*>(data), nullptr);
}

GDBusConnection* g_raw = nullptr;
lumora::bench::Emitter g_emitter;

// Who listens to the signal: raw handlers on the private connection, or the
// library's callbacks on the subject and one callback on each other subject.
struct Listeners {
    int raw = 0;
    int callbacks = 0;
    int others = 0;
    bool operator==(const Listeners& o) const { return raw == o.raw && callbacks == o.callbacks && others == o.others; }
};

Listeners g_current;
std::vector<guint> g_rawIds;

// A round trip on each connection: the daemon handles a connection's messages
// in order, so every match rule added or removed before it is in force after.
bool SettleMatchRules() {
    if (!lumora::test::NameHasOwner(g_raw, contract::kBusName)) return false;
    char* value = Lumora_ReadCurrentSourceInfo(nullptr);
    if (value == nullptr) return false;
    free(value);
    return true;
}

bool RemoveListeners() {
    bool ok = true;
    for (guint id : g_rawIds) g_dbus_connection_signal_unsubscribe(g_raw, id);
    g_rawIds.clear();
    for (int i = 0; i < g_current.callbacks; ++i)
        ok = Lumora_Unsubscribe(kSubject, kCallbacks[static_cast<size_t>(i)], nullptr) && ok;
    for (int i = 0; i < g_current.others; ++i)
        ok = Lumora_Unsubscribe(OtherSubject(i).c_str(), kCallbacks[0], nullptr) && ok;
    g_current = Listeners{};
    return ok;
}

// Subscribing 1,000 subjects takes as many calls to the service, so a set-up
// is kept for as long as the runs that follow want the same one.
bool UseListeners(const Listeners& wanted) {
    if (wanted == g_current) return true;
    bool ok = RemoveListeners();
    for (int i = 0; i < wanted.raw; ++i) {
        g_rawIds.push_back(g_dbus_connection_signal_subscribe(
            g_raw, nullptr, contract::kInterface, contract::kSignalResponse, contract::kObjectPath, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE, &OnRawSignal, GSIZE_TO_POINTER(static_cast<size_t>(i)), nullptr));
    }
    // The other subjects first: the subject's own records come last in the
    // library's table.
    for (int i = 0; i < wanted.others; ++i)
        ok = Lumora_Subscribe(OtherSubject(i).c_str(), kCallbacks[0], nullptr) && ok;
    for (int i = 0; i < wanted.callbacks; ++i)
        ok = Lumora_Subscribe(kSubject, kCallbacks[static_cast<size_t>(i)], nullptr) && ok;
    g_current = wanted;
    return SettleMatchRules() && ok;
}

// One burst: the emitter is told, and the main loop runs until every
// callback got every signal of it.
void RunBursts(benchmark::State& state, long deliveriesPerBurst) {
    lumora::bench::ProgressWatch watch(g_delivered, kStallCheckMs);
    lumora::bench::PerItemClocks clocks;
    for (auto _ : state) {
        g_emitter.Burst(kBurst, kSubject);
        if (!watch.RunUntil(g_delivered + deliveriesPerBurst)) {
            state.SkipWithError("notifications stopped arriving");
            break;
        }
    }
    clocks.Report(state, static_cast<double>(state.iterations()) * kBurst);
}

void BM_RawSignal(benchmark::State& state) {
    int handlers = static_cast<int>(state.range(0));
    if (!UseListeners({handlers, 0, 0})) {
        state.SkipWithError("cannot set up the listeners");
        return;
    }
    RunBursts(state, static_cast<long>(kBurst) * handlers);
}

void BM_LumoraNotify(benchmark::State& state) {
    int callbacks = static_cast<int>(state.range(0));
    bool logging = state.range(2) != 0;
    if (!UseListeners({0, callbacks, static_cast<int>(state.range(1))})) {
        state.SkipWithError("cannot set up the subscriptions");
        return;
    }
    const char* label = SetLogging(logging ? Logging::kToFile : Logging::kOff, kLogFile);
    RunBursts(state, static_cast<long>(kBurst) * callbacks);
    SetLogging(Logging::kOff, kLogFile);
    state.SetLabel(label);
}

BENCHMARK(BM_RawSignal)->ArgName("handlers")->Arg(1)->Arg(10)->Arg(100)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_LumoraNotify)
    ->ArgNames({"callbacks", "others", "log"})
    ->Args({1, 0, 0})
    ->Args({10, 0, 0})
    ->Args({100, 0, 0})
    ->Args({1, 1000, 0})
    ->Args({1, 0, 1})
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace

using lumora::bench::BenchService;
using lumora::bench::RunBenchmarks;

int main(int argc, char** argv) {
    BenchService service(kLogFile);
    if (!service.Start()) return 1;
    g_raw = service.Raw();
    // The library listens from its start; it stops when its last subscription
    // goes, so that raw runs are not charged for its copies of the signals.
    if (!UseListeners({0, 1, 0}) || !UseListeners({}) || !g_emitter.Start(service.Address())) {
        fprintf(stderr, "cannot prepare the listeners or the emitter\n");
        return 1;
    }
    RunBenchmarks(argc, argv);
    UseListeners({});
    g_emitter.Stop();
    return 0;
}
