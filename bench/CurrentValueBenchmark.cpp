// Subscriptions with the current value beside raw GDBus, against lumora-sim:
//
// - the first value: Lumora_SubscribeWithValue until its callback had the
//   value, then Lumora_Unsubscribe, beside the same done by hand on a private
//   connection (signal subscription, the subscribe "RequestSync", the
//   "RequestAsync" for the value, its answer unpacked and copied, then the
//   unsubscribe "RequestSync" and the signal subscription removed);
// - the catch-up: 1,000 subjects subscribed with their value, each given a new
//   value in the simulator, which then restarts ("BYE", "HELLO"): the time
//   from "HELLO" (as a raw handler of this process sees it) until every
//   callback had its new value, beside 1,000 raw "RequestAsync" calls issued
//   together and all answered. The library first registers the 1,000
//   subscriptions again (a window of calls in flight), as it does on every
//   "HELLO"; the
//   counter issued_to_values_ms is the catch-up alone, from the moment the
//   registrations were answered and the availability callback ran until the
//   last value; max_loop_block_ms is the longest the main loop went without
//   running a 1 ms heartbeat between "HELLO" and the last value.
//
// Only ratios within one run mean anything: bench/run-current-value-benchmark.sh
// runs the variants interleaved.
#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <lumora/lumora-api.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "BenchService.h"
#include "BusCalls.h"
#include "ControlContract.h"
#include "LoopBench.h"
#include "TempDir.h"
#include "internal/ServiceContract.h"

namespace {

namespace contract = lumora::contract;

constexpr const char* kSubject = "Ctx/Media/Source/Info/Current";
constexpr const char* kLogFile = "/tmp/lumora-bench-current-value.log";
constexpr int kCatchUpSubjects = 1000;
constexpr guint kStallCheckMs = 5000;

// Touched on the main-loop thread only; only grow.
long g_values = 0;
long g_answered = 0;
long g_controlAnswers = 0;
long g_failed = 0;

GDBusConnection* g_raw = nullptr;
gint32 g_reqId = 0;
gint64 g_helloUs = 0;
gint64 g_lastValueUs = 0;
gint64 g_availableUs = 0;

// The longest gap between two runs of a 1 ms heartbeat on the main loop,
// counted from "HELLO" on.
gint64 g_beatUs = 0;
gint64 g_longestGapUs = 0;

gboolean Heartbeat(gpointer) {
    gint64 now = g_get_monotonic_time();
    if (g_helloUs != 0 && g_beatUs != 0 && now - g_beatUs > g_longestGapUs) g_longestGapUs = now - g_beatUs;
    g_beatUs = now;
    return G_SOURCE_CONTINUE;
}

std::vector<std::string> CatchUpSubjects() {
    std::vector<std::string> subjects;
    for (int i = 0; i < kCatchUpSubjects; ++i) subjects.push_back("Bench/CatchUp/" + std::to_string(i));
    return subjects;
}

void OnValue(const char* /*subject*/, char* data, void* /*userData*/) {
    benchmark::DoNotOptimize(data);
    ++g_values;
    g_lastValueUs = g_get_monotonic_time();
}

void OnAvailability(int available, const char* /*reason*/, void*) {
    if (available == 1) g_availableUs = g_get_monotonic_time();
}

void OnRawAnswer(GObject* source, GAsyncResult* result, gpointer) {
    if (!lumora::bench::TakeRawAnswer(source, result)) ++g_failed;
    ++g_answered;
}

// Finishes a call whose reply is not looked at, counting a failure.
void FinishCall(GObject* source, GAsyncResult* result) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (reply != nullptr) g_variant_unref(reply);
    if (error != nullptr) {
        ++g_failed;
        g_error_free(error);
    }
}

void OnRawRegistration(GObject* source, GAsyncResult* result, gpointer) {
    FinishCall(source, result);
    ++g_answered;
}

void OnRawSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
                 gpointer) {
    const gchar* subject = nullptr;
    g_variant_get(parameters, "(i&s&s)", nullptr, &subject, nullptr);
    if (g_strcmp0(subject, contract::kHello) == 0) g_helloUs = g_get_monotonic_time();
}

void OnControlAnswer(GObject* source, GAsyncResult* result, gpointer) {
    FinishCall(source, result);
    ++g_controlAnswers;
}

GVariant* RequestTuple(int type, const std::string& subject, const char* input) {
    return g_variant_new("(iiiss)", static_cast<gint32>(getpid()), type, ++g_reqId, subject.c_str(), input);
}

bool RawSync(int type) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        g_raw, contract::kBusName, contract::kObjectPath, contract::kInterface, contract::kMethodRequestSync,
        RequestTuple(type, kSubject, "{}"), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply == nullptr) {
        g_error_free(error);
        return false;
    }
    g_variant_unref(reply);
    return true;
}

void IssueRawRequest(const std::string& subject) {
    g_dbus_connection_call(g_raw, contract::kBusName, contract::kObjectPath, contract::kInterface,
                           contract::kMethodRequestAsync, RequestTuple(5, subject, ""), nullptr, G_DBUS_CALL_FLAGS_NONE,
                           -1, nullptr, &OnRawAnswer, nullptr);
}

void CallControl(const char* method, GVariant* parameters) {
    g_dbus_connection_call(g_raw, contract::kBusName, lumora::sim::kControlPath, lumora::sim::kControlInterface, method,
                           parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &OnControlAnswer, nullptr);
}

// ---- the first value ---------------------------------------------------------------

void BM_RawSubscribeThenCall(benchmark::State& state) {
    lumora::bench::ProgressWatch watch(g_answered, kStallCheckMs);
    lumora::bench::PerItemClocks clocks;
    g_failed = 0;
    for (auto _ : state) {
        guint id = g_dbus_connection_signal_subscribe(g_raw, nullptr, contract::kInterface, contract::kSignalResponse,
                                                      contract::kObjectPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                      OnRawSignal, nullptr, nullptr);
        long target = g_answered + 1;
        if (!RawSync(contract::kRequestSubscribe)) ++g_failed;
        IssueRawRequest(kSubject);
        if (!watch.RunUntil(target)) return state.SkipWithError("the answer did not come");
        if (!RawSync(contract::kRequestUnsubscribe)) ++g_failed;
        g_dbus_connection_signal_unsubscribe(g_raw, id);
    }
    clocks.Report(state, static_cast<double>(state.iterations()));
    if (g_failed != 0) state.SkipWithError("a call failed");
}

void BM_LumoraSubscribeWithValue(benchmark::State& state) {
    lumora::bench::ProgressWatch watch(g_values, kStallCheckMs);
    lumora::bench::PerItemClocks clocks;
    for (auto _ : state) {
        long target = g_values + 1;
        if (!Lumora_SubscribeWithValue(kSubject, OnValue, nullptr)) return state.SkipWithError("refused");
        if (!watch.RunUntil(target)) return state.SkipWithError("the value did not come");
        Lumora_Unsubscribe(kSubject, OnValue, nullptr);
    }
    clocks.Report(state, static_cast<double>(state.iterations()));
}

// ---- the catch-up of 1,000 ---------------------------------------------------------

void BM_RawCallsInFlight(benchmark::State& state) {
    const std::vector<std::string> subjects = CatchUpSubjects();
    lumora::bench::ProgressWatch watch(g_answered, kStallCheckMs);
    g_failed = 0;
    for (auto _ : state) {
        gint64 start = g_get_monotonic_time();
        long target = g_answered + kCatchUpSubjects;
        for (const std::string& subject : subjects) IssueRawRequest(subject);
        if (!watch.RunUntil(target)) return state.SkipWithError("answers stopped arriving");
        state.SetIterationTime(static_cast<double>(g_get_monotonic_time() - start) / 1e6);
    }
    if (g_failed != 0) state.SkipWithError("a call failed");
}

// What a return of the service sends before the values: one subscribe
// "RequestSync" per subscription, here 1,000 issued together by hand.
void BM_RawRegistrationsInFlight(benchmark::State& state) {
    const std::vector<std::string> subjects = CatchUpSubjects();
    lumora::bench::ProgressWatch watch(g_answered, kStallCheckMs);
    g_failed = 0;
    for (auto _ : state) {
        gint64 start = g_get_monotonic_time();
        long target = g_answered + kCatchUpSubjects;
        for (const std::string& subject : subjects) {
            g_dbus_connection_call(g_raw, contract::kBusName, contract::kObjectPath, contract::kInterface,
                                   contract::kMethodRequestSync,
                                   RequestTuple(contract::kRequestSubscribe, subject, contract::kEmptyJson), nullptr,
                                   G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &OnRawRegistration, nullptr);
        }
        if (!watch.RunUntil(target)) return state.SkipWithError("answers stopped arriving");
        state.SetIterationTime(static_cast<double>(g_get_monotonic_time() - start) / 1e6);
    }
    if (g_failed != 0) state.SkipWithError("a call failed");
}

void BM_LumoraCatchUp(benchmark::State& state) {
    const std::vector<std::string> subjects = CatchUpSubjects();
    lumora::bench::ProgressWatch values(g_values, kStallCheckMs);
    lumora::bench::ProgressWatch controls(g_controlAnswers, kStallCheckMs);
    // Subscribed once; every iteration changes all values and restarts.
    long target = g_values + kCatchUpSubjects;
    for (const std::string& subject : subjects) {
        if (!Lumora_SubscribeWithValue(subject.c_str(), OnValue, nullptr)) return state.SkipWithError("refused");
    }
    if (!values.RunUntil(target)) return state.SkipWithError("the first values did not come");
    guint hello = g_dbus_connection_signal_subscribe(g_raw, nullptr, contract::kInterface, contract::kSignalResponse,
                                                     contract::kObjectPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                     OnRawSignal, nullptr, nullptr);
    Lumora_AddAvailabilityCallback(OnAvailability, nullptr);
    double issuedToValues = 0;
    double helloToIssued = 0;
    double longestBlock = 0;
    int round = 0;
    guint heartbeat = g_timeout_add(1, Heartbeat, nullptr);
    g_failed = 0;
    for (auto _ : state) {
        ++round;
        long controlTarget = g_controlAnswers + kCatchUpSubjects;
        std::string value = "{\"round\":" + std::to_string(round) + "}";
        for (const std::string& subject : subjects)
            CallControl(lumora::sim::kCtlSetValue, g_variant_new("(ss)", subject.c_str(), value.c_str()));
        if (!controls.RunUntil(controlTarget)) return state.SkipWithError("the simulator did not take the values");
        target = g_values + kCatchUpSubjects;
        g_helloUs = 0;
        g_longestGapUs = 0;
        long restarted = g_controlAnswers + 1;
        CallControl(lumora::sim::kCtlRestart, g_variant_new("(u)", 0u));
        if (!values.RunUntil(target)) return state.SkipWithError("the values did not come after HELLO");
        if (g_helloUs == 0) return state.SkipWithError("HELLO was not seen");
        if (!controls.RunUntil(restarted)) return state.SkipWithError("the restart was not answered");
        state.SetIterationTime(static_cast<double>(g_lastValueUs - g_helloUs) / 1e6);
        issuedToValues += static_cast<double>(g_lastValueUs - g_availableUs) / 1e3;
        helloToIssued += static_cast<double>(g_availableUs - g_helloUs) / 1e3;
        longestBlock = std::max(longestBlock, static_cast<double>(g_longestGapUs) / 1e3);
    }
    g_source_remove(heartbeat);
    Lumora_RemoveAvailabilityCallback(OnAvailability, nullptr);
    g_dbus_connection_signal_unsubscribe(g_raw, hello);
    for (const std::string& subject : subjects) Lumora_Unsubscribe(subject.c_str(), OnValue, nullptr);
    state.counters["issued_to_values_ms"] = issuedToValues / static_cast<double>(round);
    state.counters["hello_to_issued_ms"] = helloToIssued / static_cast<double>(round);
    state.counters["max_loop_block_ms"] = longestBlock;
    if (g_failed != 0) state.SkipWithError("a control call failed");
}

BENCHMARK(BM_RawSubscribeThenCall)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_LumoraSubscribeWithValue)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(BM_RawCallsInFlight)->Arg(kCatchUpSubjects)->Iterations(20)->UseManualTime();
BENCHMARK(BM_RawRegistrationsInFlight)->Arg(kCatchUpSubjects)->Iterations(20)->UseManualTime();
BENCHMARK(BM_LumoraCatchUp)->Arg(kCatchUpSubjects)->Iterations(20)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
    lumora::bench::BenchService service(kLogFile);
    lumora::test::TempDir dir;
    // 1,000 calls in flight: a stock bus refuses more than 128 per connection.
    std::string busConfig = lumora::bench::BusConfigWithRoomFor(dir, 2048);
    if (busConfig.empty() || !service.Start(busConfig)) return 1;
    g_raw = service.Raw();
    lumora::bench::RunBenchmarks(argc, argv);
    return 0;
}
