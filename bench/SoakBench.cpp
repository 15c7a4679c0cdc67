// Soak of one client of the library, and its footprint beside a bare GDBus
// client. Not a test: bench/run-soak-benchmark.sh runs it against lumora-sim
// on a private bus, bench/run-soak-valgrind.sh runs a short soak under
// valgrind.
//
// The soak, in one process, one phase after another:
//   reads           Lumora_Read round trips
//   notifications   the service's "Response" signal, sent in bursts of 100 by
//                   signal_emitter, delivered to N callbacks of one subject
//   subscriptions   Lumora_Subscribe + Lumora_Unsubscribe of another subject
//   restarts        lumora-sim's control method Restart: the service says
//                   "BYE", pauses, says "HELLO"; the library must become
//                   available again and the N callbacks must hear a
//                   notification sent through the simulator's Emit, which
//                   reaches only the clients subscribed to the subject
// It prints resident memory and threads (/proc/self/status) every tenth of
// each phase and checks, per phase, that resident memory grew by at most 1 %
// after the first tenth (the warm-up), and that no thread was added after the
// start (GDBus's worker thread, which GIO starts with the first connection,
// is counted there). The callbacks of the N subscriptions stay in place
// throughout. Exits 1 when a check fails, naming it. Each sample also shows
// malloc's blocks in use and the free memory it holds, which tell a peak kept
// by the allocator from memory kept by someone. GLib before 2.76 keeps small
// blocks in its own slice allocator, whose per-thread caches drift by tens of
// kB while GDBus's worker thread allocates messages that the main loop frees;
// bench/run-soak-benchmark.sh runs the soak with G_SLICE=always-malloc, as
// GLib 2.76 and later always behave.
//
// With --footprint it instead starts footprint_gdbus and footprint_lumora
// (bench/Footprint.c) afresh several times each, in turn, and compares their
// resident memory and threads after start and one subscription, and where
// the difference lies, mapped file by mapped file. They are C programs of
// their own rather than modes of this one: this program is linked with the
// library and the C++ runtime, which would then be loaded, relocated and
// counted in both. Exits 1 when the library's client is more than 1 MiB above
// the bare one or has a thread the bare one has not.
#include <gio/gio.h>
#include <lumora/lumora-api.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ControlContract.h"
#include "Emitter.h"
#include "internal/ServiceContract.h"

namespace {

namespace contract = lumora::contract;
namespace sim = lumora::sim;

constexpr const char* kReadSubject = "Ctx/Media/Source/Info/Current";
constexpr const char* kNotifySubject = "Ctx/Media/Source/Changed";
constexpr const char* kCycleSubject = "Ctx/App/Info/Changed";
constexpr long kBurst = 100;
constexpr size_t kMaxCallbacks = 64;
// Anything that should arrive and has not after this long is lost.
constexpr guint kWaitMs = 10000;
// What the footprint is measured against.
constexpr long kFootprintTargetKb = 1024;

struct Options {
    long reads = 1000000;
    long notifications = 100000;
    long callbacks = 10;
    long cycles = 10000;
    long restarts = 100;
    long restartPauseMs = 50;
    bool checkRss = true;
    bool footprint = false;
    long footprintRounds = 9;
};

void Usage() {
    fprintf(stderr,
            "usage: soak_benchmark [--reads=N] [--notifications=N] [--callbacks=N] [--cycles=N]\n"
            "                      [--restarts=N] [--restart-pause-ms=N] [--no-rss-check]\n"
            "       soak_benchmark --footprint [--rounds=N]\n"
            "Needs DBUS_SYSTEM_BUS_ADDRESS naming a bus where lumora-sim runs.\n");
}

bool ParseOptions(int argc, char** argv, Options& options) {
    const std::pair<const char*, long*> numbers[] = {
        {"--reads=", &options.reads},
        {"--notifications=", &options.notifications},
        {"--callbacks=", &options.callbacks},
        {"--cycles=", &options.cycles},
        {"--restarts=", &options.restarts},
        {"--restart-pause-ms=", &options.restartPauseMs},
        {"--rounds=", &options.footprintRounds},
    };
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (strcmp(arg, "--no-rss-check") == 0) {
            options.checkRss = false;
            continue;
        }
        if (strcmp(arg, "--footprint") == 0) {
            options.footprint = true;
            continue;
        }
        bool known = false;
        for (const auto& [prefix, value] : numbers) {
            size_t length = strlen(prefix);
            if (strncmp(arg, prefix, length) != 0) continue;
            char* end = nullptr;
            errno = 0;
            *value = strtol(arg + length, &end, 10);
            known = errno == 0 && end != arg + length && *end == '\0' && *value >= 0;
            break;
        }
        if (!known) return false;
    }
    return options.callbacks >= 1 && static_cast<size_t>(options.callbacks) <= kMaxCallbacks &&
           options.footprintRounds >= 1;
}

// ---- what /proc and malloc say about this process ------------------------------

struct Sample {
    long rssKb = 0;
    long anonKb = 0;
    long fileKb = 0;
    long threads = 0;
    // malloc's blocks in use, and the free memory it holds, over all its
    // arenas: resident memory that grows while the blocks in use do not is
    // free memory kept after a peak, not memory kept by anyone.
    long heapInUseKb = 0;
    long heapFreeKb = 0;
};

Sample TakeSample() {
    Sample sample;
    struct mallinfo2 heap = mallinfo2();
    sample.heapInUseKb = static_cast<long>((heap.uordblks + heap.hblkhd) / 1024);
    sample.heapFreeKb = static_cast<long>(heap.fordblks / 1024);
    FILE* status = fopen("/proc/self/status", "r");
    char line[256];
    while (status != nullptr && fgets(line, sizeof line, status) != nullptr) {
        long value = 0;
        if (sscanf(line, "VmRSS: %ld", &value) == 1) sample.rssKb = value;
        if (sscanf(line, "RssAnon: %ld", &value) == 1) sample.anonKb = value;
        if (sscanf(line, "RssFile: %ld", &value) == 1) sample.fileKb = value;
        if (sscanf(line, "Threads: %ld", &value) == 1) sample.threads = value;
    }
    if (status != nullptr) fclose(status);
    return sample;
}

std::string ThreadNames() {
    std::string names;
    GDir* tasks = g_dir_open("/proc/self/task", 0, nullptr);
    const gchar* task = nullptr;
    while (tasks != nullptr && (task = g_dir_read_name(tasks)) != nullptr) {
        gchar* path = g_strdup_printf("/proc/self/task/%s/comm", task);
        gchar* comm = nullptr;
        if (g_file_get_contents(path, &comm, nullptr, nullptr)) {
            g_strchomp(comm);
            if (!names.empty()) names += ", ";
            names += comm;
            g_free(comm);
        }
        g_free(path);
    }
    if (tasks != nullptr) g_dir_close(tasks);
    return names;
}

double Seconds() { return static_cast<double>(g_get_monotonic_time()) / 1e6; }

// ---- the main loop -------------------------------------------------------------

gboolean OnExpired(gpointer expired) {
    *static_cast<bool*>(expired) = true;
    return G_SOURCE_REMOVE;
}

/// Runs the default main context until done() holds; false when it still
/// does not after timeoutMs.
bool RunUntil(const std::function<bool()>& done, guint timeoutMs = kWaitMs) {
    if (done()) return true;
    bool expired = false;
    guint timer = g_timeout_add(timeoutMs, OnExpired, &expired);
    while (!done() && !expired) g_main_context_iteration(nullptr, TRUE);
    if (!expired) g_source_remove(timer);
    return done();
}

/// Runs whatever is ready on the default main context, without waiting.
void Drain() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

/// Runs the default main context for ms, so that anything late arrives.
void Settle(guint ms) {
    bool expired = false;
    g_timeout_add(ms, OnExpired, &expired);
    while (!expired) g_main_context_iteration(nullptr, TRUE);
}

// ---- the simulator's control object, on a connection of this program's own ----

GDBusConnection* g_control = nullptr;

GDBusConnection* Connect() {
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(contract::kBusType, nullptr, &error);
    GDBusConnection* connection =
        address == nullptr
            ? nullptr
            : g_dbus_connection_new_for_address_sync(address, contract::kConnectionFlags, nullptr, nullptr, &error);
    g_free(address);
    if (connection == nullptr) {
        fprintf(stderr, "cannot connect to the bus: %s\n", error->message);
        g_error_free(error);
    }
    return connection;
}

/// Asks the simulator to send subject's "Response" to its subscribers;
/// returns how many it sent to, or -1.
long Emit(const char* subject, const char* data) {
    GError* error = nullptr;
    GVariant* reply =
        g_dbus_connection_call_sync(g_control, contract::kBusName, sim::kControlPath, sim::kControlInterface,
                                    sim::kCtlEmit, g_variant_new("(ss)", subject, data), G_VARIANT_TYPE("(u)"),
                                    G_DBUS_CALL_FLAGS_NONE, static_cast<int>(kWaitMs), nullptr, &error);
    if (reply == nullptr) {
        fprintf(stderr, "Emit: %s\n", error->message);
        g_error_free(error);
        return -1;
    }
    guint32 sent = 0;
    g_variant_get(reply, "(u)", &sent);
    g_variant_unref(reply);
    return sent;
}

struct ControlCall {
    bool done = false;
    std::string error;
};

void OnControlReply(GObject* source, GAsyncResult* result, gpointer data) {
    auto* call = static_cast<ControlCall*>(data);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (reply != nullptr) g_variant_unref(reply);
    if (error != nullptr) {
        call->error = error->message;
        g_error_free(error);
    }
    call->done = true;
}

// ---- the callbacks -------------------------------------------------------------

// Touched on the main-loop thread only.
long g_delivered = 0;
std::array<long, kMaxCallbacks> g_hits{};
size_t g_seen = 0;

// One function per index: the library keeps one record per (subject,
// callback) pair.
template <size_t I>
void Counted(const char* /*subject*/, char* data, void* /*userData*/) {
    g_seen += strlen(data);
    ++g_hits[I];
    ++g_delivered;
}

template <size_t... I>
constexpr std::array<LumoraSubjectCb, sizeof...(I)> MakeCallbacks(std::index_sequence<I...>) {
    return {{&Counted<I>...}};
}
constexpr std::array<LumoraSubjectCb, kMaxCallbacks> kCallbacks =
    MakeCallbacks(std::make_index_sequence<kMaxCallbacks>());

void OnCycle(const char* /*subject*/, char* data, void* /*userData*/) { g_seen += strlen(data); }

// ---- signal_emitter --------------------------------------------------------------

lumora::bench::Emitter g_emitter;

bool StartEmitter() {
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(contract::kBusType, nullptr, &error);
    if (address == nullptr) {
        fprintf(stderr, "no bus address: %s\n", error->message);
        g_error_free(error);
        return false;
    }
    bool started = g_emitter.Start(address);
    g_free(address);
    return started;
}

// ---- the phases ------------------------------------------------------------------

Options g_options;

bool DoReads(long count) {
    for (long i = 0; i < count; ++i) {
        char* value = Lumora_Read(kReadSubject, nullptr);
        if (value == nullptr) {
            fprintf(stderr, "Lumora_Read(%s) failed\n", kReadSubject);
            return false;
        }
        free(value);
        if (i % 1000 == 999) Drain();
    }
    Drain();
    return true;
}

bool DoNotifications(long count) {
    while (count > 0) {
        long burst = std::min(count, kBurst);
        count -= burst;
        g_emitter.Burst(burst, kNotifySubject);
        long target = g_delivered + burst * g_options.callbacks;
        if (!RunUntil([target] { return g_delivered >= target; })) {
            fprintf(stderr, "notifications stopped arriving: %ld of %ld deliveries\n", g_delivered, target);
            return false;
        }
    }
    return true;
}

bool DoCycles(long count) {
    for (long i = 0; i < count; ++i) {
        if (!Lumora_Subscribe(kCycleSubject, OnCycle, nullptr)) {
            fprintf(stderr, "Lumora_Subscribe(%s) failed\n", kCycleSubject);
            return false;
        }
        if (!Lumora_Unsubscribe(kCycleSubject, OnCycle, nullptr)) {
            fprintf(stderr, "Lumora_Unsubscribe(%s) failed\n", kCycleSubject);
            return false;
        }
        Drain();
    }
    return true;
}

long g_restartsDone = 0;

// One restart: the simulator answers Restart once it said "HELLO" again. The
// library hears "BYE" and "HELLO" through the main loop and registers its
// subscriptions again; until it has, Emit reaches nobody.
bool RestartOnce() {
    ControlCall call;
    g_dbus_connection_call(g_control, contract::kBusName, sim::kControlPath, sim::kControlInterface, sim::kCtlRestart,
                           g_variant_new("(u)", static_cast<guint32>(g_options.restartPauseMs)), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, static_cast<int>(kWaitMs), nullptr, OnControlReply, &call);
    if (!RunUntil([&call] { return call.done; }, kWaitMs + 1000) || !call.error.empty()) {
        fprintf(stderr, "Restart: %s\n", call.error.empty() ? "no answer" : call.error.c_str());
        return false;
    }
    if (!RunUntil([] { return LMFServiceAPI::IsAvailable(); })) {
        fprintf(stderr, "restart %ld: the service did not become available again\n", g_restartsDone + 1);
        return false;
    }
    long before = g_delivered;
    std::string data = "{\"Restart\":" + std::to_string(g_restartsDone + 1) + "}";
    gint64 deadline = g_get_monotonic_time() + kWaitMs * 1000LL;
    for (;;) {
        long sent = Emit(kNotifySubject, data.c_str());
        if (sent < 0) return false;
        if (sent > 0) break;
        if (g_get_monotonic_time() > deadline) {
            fprintf(stderr, "restart %ld: the subscriptions were not registered again\n", g_restartsDone + 1);
            return false;
        }
        Settle(5);
    }
    long target = before + g_options.callbacks;
    if (!RunUntil([target] { return g_delivered >= target; })) {
        fprintf(stderr, "restart %ld: %ld of %ld callbacks heard the notification\n", g_restartsDone + 1,
                g_delivered - before, g_options.callbacks);
        return false;
    }
    ++g_restartsDone;
    return true;
}

bool DoRestarts(long count) {
    for (long i = 0; i < count; ++i)
        if (!RestartOnce()) return false;
    Drain();
    return true;
}

struct PhaseResult {
    std::string name;
    long count = 0;
    bool completed = false;
    Sample warm;  // after the first tenth
    Sample end;
    long maxThreads = 0;
    double seconds = 0;
};

void PrintSample(const char* name, int tenth, long done, long total, const Sample& sample, double seconds) {
    printf(
        "  %-13s %3d%% %9ld/%-9ld VmRSS %6ld kB (anon %5ld, file %5ld; heap in use %5ld, free %5ld)  threads %ld  "
        "%7.1f s\n",
        name, tenth * 10, done, total, sample.rssKb, sample.anonKb, sample.fileKb, sample.heapInUseKb,
        sample.heapFreeKb, sample.threads, seconds);
    fflush(stdout);
}

PhaseResult RunPhase(const char* name, const char* what, long total, const std::function<bool(long)>& step) {
    PhaseResult result;
    result.name = name;
    result.count = total;
    printf("%s: %ld %s\n", name, total, what);
    double start = Seconds();
    long done = 0;
    for (int tenth = 1; tenth <= 10; ++tenth) {
        long upTo = total * tenth / 10;
        if (!step(upTo - done)) {
            result.seconds = Seconds() - start;
            printf("  %s stopped after %ld of %ld\n", name, done, total);
            return result;
        }
        done = upTo;
        Sample sample = TakeSample();
        if (tenth == 1) result.warm = sample;
        result.end = sample;
        result.maxThreads = std::max(result.maxThreads, sample.threads);
        PrintSample(name, tenth, done, total, sample, Seconds() - start);
    }
    result.seconds = Seconds() - start;
    result.completed = true;
    return result;
}

bool CheckDeliveries(const char* phase, long perCallback) {
    Settle(200);  // duplicates would come now
    bool ok = true;
    for (long i = 0; i < g_options.callbacks; ++i) {
        if (g_hits[static_cast<size_t>(i)] != perCallback) {
            printf("FAILED: %s: callback %ld heard %ld notifications, expected %ld\n", phase, i,
                   g_hits[static_cast<size_t>(i)], perCallback);
            ok = false;
        }
    }
    return ok;
}

int RunSoak() {
    double start = Seconds();
    const char* slice = getenv("G_SLICE");
    printf("GLib %u.%u.%u, %s\n", glib_major_version, glib_minor_version, glib_micro_version,
           slice != nullptr && *slice != '\0' ? (std::string("G_SLICE=") + slice).c_str()
                                              : "GLib's slice allocator (G_SLICE unset)");
    g_control = Connect();
    if (g_control == nullptr) return 1;
    if (!Lumora_InitService() || !LMFServiceAPI::IsAvailable()) {
        fprintf(stderr, "the service is not available\n");
        return 1;
    }
    for (long i = 0; i < g_options.callbacks; ++i) {
        if (!Lumora_Subscribe(kNotifySubject, kCallbacks[static_cast<size_t>(i)], nullptr)) {
            fprintf(stderr, "Lumora_Subscribe(%s) failed\n", kNotifySubject);
            return 1;
        }
    }
    Drain();
    Sample init = TakeSample();
    std::string initThreads = ThreadNames();
    printf(
        "after start and %ld subscriptions: VmRSS %ld kB (anon %ld, file %ld; heap in use %ld, free %ld), "
        "threads %ld (%s)\n",
        g_options.callbacks, init.rssKb, init.anonKb, init.fileKb, init.heapInUseKb, init.heapFreeKb, init.threads,
        initThreads.c_str());

    bool ok = true;
    std::vector<PhaseResult> phases;
    phases.push_back(RunPhase("reads", "Lumora_Read round trips", g_options.reads, DoReads));

    if (!StartEmitter()) return 1;
    std::string notifyWhat = "notifications to " + std::to_string(g_options.callbacks) + " callbacks";
    phases.push_back(RunPhase("notifications", notifyWhat.c_str(), g_options.notifications, DoNotifications));
    g_emitter.Stop();
    if (phases.back().completed) ok = CheckDeliveries("notifications", g_options.notifications) && ok;

    phases.push_back(
        RunPhase("subscriptions", "Lumora_Subscribe + Lumora_Unsubscribe cycles", g_options.cycles, DoCycles));
    phases.push_back(
        RunPhase("restarts", "service restarts, each followed by a notification", g_options.restarts, DoRestarts));
    if (phases.back().completed) ok = CheckDeliveries("restarts", g_options.notifications + g_options.restarts) && ok;

    std::string endThreads = ThreadNames();
    for (long i = 0; i < g_options.callbacks; ++i)
        Lumora_Unsubscribe(kNotifySubject, kCallbacks[static_cast<size_t>(i)], nullptr);
    Lumora_FiniService();
    g_dbus_connection_flush_sync(g_control, nullptr, nullptr);
    g_object_unref(g_control);
    g_control = nullptr;

    printf("\n%-13s %9s %12s %12s %9s %9s %11s %8s %9s  %s\n", "phase", "count", "warm-up kB", "end kB", "growth",
           "limit", "heap in use", "threads", "seconds", "result");
    for (const PhaseResult& phase : phases) {
        std::vector<std::string> failures;
        if (!phase.completed) failures.push_back("did not complete");
        long growth = phase.end.rssKb - phase.warm.rssKb;
        long limit = phase.warm.rssKb / 100;
        long heapGrowth = phase.end.heapInUseKb - phase.warm.heapInUseKb;
        if (phase.completed && g_options.checkRss && growth > limit)
            failures.push_back("resident memory grew by " + std::to_string(growth) + " kB after the warm-up (limit " +
                               std::to_string(limit) + " kB; malloc's blocks in use: " + (heapGrowth >= 0 ? "+" : "") +
                               std::to_string(heapGrowth) + " kB)");
        if (phase.maxThreads > init.threads)
            failures.push_back(std::to_string(phase.maxThreads - init.threads) + " thread(s) added after the start");
        std::string verdict = failures.empty() ? "ok" : "FAILED";
        printf("%-13s %9ld %12ld %12ld %+9ld %9ld %+11ld %8ld %9.1f  %s\n", phase.name.c_str(), phase.count,
               phase.warm.rssKb, phase.end.rssKb, growth, limit, heapGrowth, phase.maxThreads, phase.seconds,
               verdict.c_str());
        for (const std::string& failure : failures) printf("FAILED: %s: %s\n", phase.name.c_str(), failure.c_str());
        ok = failures.empty() && ok;
    }
    if (!g_options.checkRss) printf("(resident memory not checked: --no-rss-check)\n");
    printf("threads at the start: %ld (%s); at the end: %s\n", init.threads, initThreads.c_str(), endThreads.c_str());
    printf("soak %s in %.1f s\n", ok ? "ok" : "FAILED", Seconds() - start);
    return ok ? 0 : 1;
}

// ---- footprint -------------------------------------------------------------------

// Resident kB of one file's mappings (or one kind of mapping), in all and by
// permissions, and the private dirty part.
struct MapKb {
    long rss = 0;
    long code = 0;      // r-xp
    long readOnly = 0;  // r--p: symbol tables, constants, relocated data made read-only
    long written = 0;   // rw-p and anything else
    long privateDirty = 0;

    MapKb& operator-=(const MapKb& o) {
        rss -= o.rss;
        code -= o.code;
        readOnly -= o.readOnly;
        written -= o.written;
        privateDirty -= o.privateDirty;
        return *this;
    }
    MapKb& operator+=(const MapKb& o) {
        rss += o.rss;
        code += o.code;
        readOnly += o.readOnly;
        written += o.written;
        privateDirty += o.privateDirty;
        return *this;
    }
};

struct Report {
    std::map<std::string, long> status;
    std::vector<std::string> threads;
    std::map<std::string, MapKb> maps;
};

struct ClientRun {
    bool ok = false;
    Report subscribed;
    Report notified;
};

bool ReadReport(FILE* in, Report& report) {
    char line[1024];
    while (fgets(line, sizeof line, in) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        if (strcmp(line, "end") == 0) return true;
        char key[64];
        long a = 0;
        long b = 0;
        char perms[8];
        int at = 0;
        if (sscanf(line, "status %63s %ld", key, &a) == 2) {
            report.status[key] = a;
        } else if (strncmp(line, "thread ", 7) == 0) {
            report.threads.emplace_back(line + 7);
        } else if (sscanf(line, "map %ld %ld %7s %n", &a, &b, perms, &at) == 3 && at > 0) {
            MapKb& kb = report.maps[line + at];
            kb.rss += a;
            kb.privateDirty += b;
            (strcmp(perms, "r-xp") == 0 ? kb.code : strcmp(perms, "r--p") == 0 ? kb.readOnly : kb.written) += a;
        }
    }
    return false;
}

struct Variant {
    const char* label;
    const char* executable;
    const char* logLevel;
    const char* logFile;
};

ClientRun RunClient(const Variant& variant) {
    ClientRun run;
    gchar** env = g_get_environ();
    env = g_environ_setenv(env, "LUMORA_LOG_LEVEL", variant.logLevel, TRUE);
    if (variant.logFile != nullptr) {
        unlink(variant.logFile);
        env = g_environ_setenv(env, "LUMORA_LOG_FILE", variant.logFile, TRUE);
    }
    gchar* argv[] = {const_cast<gchar*>(variant.executable), const_cast<gchar*>(kNotifySubject), nullptr};
    GPid pid = 0;
    gint out = -1;
    GError* error = nullptr;
    bool spawned = g_spawn_async_with_pipes(nullptr, argv, env, G_SPAWN_DO_NOT_REAP_CHILD, nullptr, nullptr, &pid,
                                            nullptr, &out, nullptr, &error);
    g_strfreev(env);
    if (!spawned) {
        fprintf(stderr, "cannot start %s: %s\n", variant.executable, error->message);
        g_error_free(error);
        return run;
    }
    FILE* in = fdopen(out, "r");
    bool reported = in != nullptr && ReadReport(in, run.subscribed);
    // The client waits for one notification before its second report.
    bool sent = reported && Emit(kNotifySubject, "{\"Source\":\"HDMI1\"}") > 0;
    reported = sent && ReadReport(in, run.notified);
    if (in != nullptr) fclose(in);
    int status = 0;
    waitpid(pid, &status, 0);
    g_spawn_close_pid(pid);
    if (variant.logFile != nullptr) unlink(variant.logFile);
    run.ok = reported && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!run.ok) fprintf(stderr, "%s did not report (status %d)\n", variant.executable, status);
    return run;
}

std::string BaseName(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Thread names of a that b has no thread of: the threads of its own.
std::vector<std::string> ExtraThreads(std::vector<std::string> a, const std::vector<std::string>& b) {
    for (const std::string& name : b) {
        auto found = std::find(a.begin(), a.end(), name);
        if (found != a.end()) a.erase(found);
    }
    return a;
}

std::string Join(const std::vector<std::string>& names) {
    std::string joined;
    for (const std::string& name : names) joined += (joined.empty() ? "" : ", ") + name;
    return joined;
}

void PrintMapLine(const MapKb& kb, const std::string& what) {
    printf("    %+6ld kB  %+6ld %+6ld %+6ld  %+6ld   %s\n", kb.rss, kb.code, kb.readOnly, kb.written, kb.privateDirty,
           what.c_str());
}

// Resident kB per mapped file of `report` minus `base`, largest first.
void PrintBreakdown(const Report& report, const Report& base, size_t top) {
    std::map<std::string, MapKb> diff = report.maps;
    for (const auto& [name, kb] : base.maps) diff[name] -= kb;
    std::vector<std::pair<std::string, MapKb>> sorted(diff.begin(), diff.end());
    std::sort(sorted.begin(), sorted.end(), [](const auto& x, const auto& y) { return x.second.rss > y.second.rss; });
    printf("    %9s  %6s %6s %6s  %6s\n", "resident", "code", "r/o", "rw", "pr.dirty");
    MapKb rest;
    for (size_t i = 0; i < sorted.size(); ++i) {
        const auto& [name, kb] = sorted[i];
        if (i < top && kb.rss > 0) {
            bool onlyHere = base.maps.count(name) == 0;
            PrintMapLine(kb, BaseName(name) + (onlyHere ? "  [only in the library's client]" : ""));
        } else {
            rest += kb;
        }
    }
    PrintMapLine(rest, "everything else");
    MapKb total;
    for (const auto& [name, kb] : sorted) total += kb;
    PrintMapLine(total, "in all");
}

long PrivateDirty(const Report& report) {
    long sum = 0;
    for (const auto& [name, kb] : report.maps) sum += kb.privateDirty;
    return sum;
}

// Resident kB of the C++ runtime's libraries, which a C++ application maps
// whether it uses the library or not.
long CxxRuntime(const Report& report) {
    long sum = 0;
    for (const auto& [name, kb] : report.maps) {
        std::string base = BaseName(name);
        if (base.rfind("libstdc++.so", 0) == 0 || base.rfind("libgcc_s.so", 0) == 0) sum += kb.rss;
    }
    return sum;
}

// The mean of several reports, field by field and mapping by mapping (a
// mapping missing from a report counts as 0 there); the threads of the first.
Report MeanOf(const std::vector<const Report*>& reports) {
    Report mean;
    mean.threads = reports.front()->threads;
    std::map<std::string, MapKb> sums;
    for (const Report* report : reports) {
        for (const auto& [field, value] : report->status) mean.status[field] += value;
        for (const auto& [name, kb] : report->maps) sums[name] += kb;
    }
    const long n = static_cast<long>(reports.size());
    auto divide = [n](long sum) { return (sum + (sum >= 0 ? n / 2 : -n / 2)) / n; };
    for (auto& [field, value] : mean.status) value = divide(value);
    for (const auto& [name, kb] : sums) {
        MapKb& m = mean.maps[name];
        m.rss = divide(kb.rss);
        m.code = divide(kb.code);
        m.readOnly = divide(kb.readOnly);
        m.written = divide(kb.written);
        m.privateDirty = divide(kb.privateDirty);
    }
    return mean;
}

long Median(std::vector<long> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

int RunFootprint() {
    g_control = Connect();
    if (g_control == nullptr) return 1;
    const std::vector<Variant> variants = {
        {"bare GDBus client", LUMORA_FOOTPRINT_GDBUS, "none", nullptr},
        {"library, log off", LUMORA_FOOTPRINT_LUMORA, "none", nullptr},
        {"library, log to a file", LUMORA_FOOTPRINT_LUMORA, "debug", "/tmp/lumora-bench-footprint.log"},
    };
    std::vector<std::vector<ClientRun>> runs(variants.size());
    // Rotated between rounds, so that none is always first.
    for (long round = 0; round < g_options.footprintRounds; ++round) {
        for (size_t k = 0; k < variants.size(); ++k) {
            size_t v = (k + static_cast<size_t>(round)) % variants.size();
            ClientRun run = RunClient(variants[v]);
            if (!run.ok) return 1;
            runs[v].push_back(run);
        }
    }
    // The headline figures are medians, per variant; the breakdown is the
    // mean of every mapping over all runs: which file pages a process finds
    // resident varies from one start to the next (the kernel maps pages
    // around each one faulted in, and where depends on the random layout).
    struct Summary {
        long rss = 0;          // median VmRSS after subscribing
        long rssNotified = 0;  // median VmRSS after one notification
        long minRss = 0;
        long maxRss = 0;
        Report subscribed;  // means
        Report notified;
    };
    std::vector<Summary> summaries;
    for (const auto& variantRuns : runs) {
        Summary summary;
        std::vector<long> rss;
        std::vector<long> rssNotified;
        std::vector<const Report*> subscribed;
        std::vector<const Report*> notified;
        for (const ClientRun& run : variantRuns) {
            rss.push_back(run.subscribed.status.at("VmRSS"));
            rssNotified.push_back(run.notified.status.at("VmRSS"));
            subscribed.push_back(&run.subscribed);
            notified.push_back(&run.notified);
        }
        summary.rss = Median(rss);
        summary.rssNotified = Median(rssNotified);
        summary.minRss = *std::min_element(rss.begin(), rss.end());
        summary.maxRss = *std::max_element(rss.begin(), rss.end());
        summary.subscribed = MeanOf(subscribed);
        summary.notified = MeanOf(notified);
        summaries.push_back(summary);
    }
    const Summary& bare = summaries[0];
    const Summary& library = summaries[1];

    printf(
        "footprint of a fresh client, kB (median of %ld processes each; RssAnon, RssFile and private dirty\n"
        "are means):\n",
        g_options.footprintRounds);
    printf("  %-28s %8s %8s %8s %8s %8s %8s   %s\n", "after start + 1 subscription", "VmRSS", "RssAnon", "RssFile",
           "vs bare", "pr.dirty", "threads", "after 1 notification: VmRSS, vs bare");
    for (size_t v = 0; v < variants.size(); ++v) {
        const Summary& x = summaries[v];
        printf("  %-28s %8ld %8ld %8ld %+8ld %8ld %8ld   %8ld %+8ld\n", variants[v].label, x.rss,
               x.subscribed.status.at("RssAnon"), x.subscribed.status.at("RssFile"), x.rss - bare.rss,
               PrivateDirty(x.subscribed), static_cast<long>(runs[v].front().subscribed.threads.size()), x.rssNotified,
               x.rssNotified - bare.rssNotified);
    }
    for (size_t v = 0; v < variants.size(); ++v) {
        printf("  %s: VmRSS of each process %ld..%ld kB; threads: %s\n", variants[v].label, summaries[v].minRss,
               summaries[v].maxRss, Join(runs[v].front().subscribed.threads).c_str());
    }

    // Threads of its own in any run of the library's client.
    std::vector<std::string> ownThreads;
    for (const ClientRun& run : runs[1]) {
        std::vector<std::string> extra = ExtraThreads(run.subscribed.threads, runs[0].front().subscribed.threads);
        std::vector<std::string> extraLater = ExtraThreads(run.notified.threads, runs[0].front().notified.threads);
        if (extra.size() + extraLater.size() > ownThreads.size()) {
            ownThreads = extra;
            ownThreads.insert(ownThreads.end(), extraLater.begin(), extraLater.end());
        }
    }
    long over = library.rss - bare.rss;
    bool ok = over <= kFootprintTargetKb && ownThreads.empty();
    printf("target: the library's client (log off) at most %ld kB above the bare one, no thread of its own: %s\n",
           kFootprintTargetKb, ok ? "met" : "NOT MET");
    if (!ownThreads.empty()) printf("  threads of its own: %s\n", Join(ownThreads).c_str());
    long cxx = CxxRuntime(library.subscribed) - CxxRuntime(bare.subscribed);
    printf(
        "  of the %+ld kB, the C++ runtime (libstdc++, libgcc_s), which a C++ application maps anyway: %+ld kB;\n"
        "  the rest: %+ld kB; private dirty memory, which no other process shares: %+ld kB\n",
        over, cxx, over - cxx, PrivateDirty(library.subscribed) - PrivateDirty(bare.subscribed));
    printf(
        "  where it lies: resident kB per mapped file, library's client minus bare (means), in code (r-xp),\n"
        "  read-only (r--p: symbol tables, constants, relocated data) and written (rw-p) mappings; the\n"
        "  private dirty part is the process's own, the rest are pages that other processes may share:\n");
    PrintBreakdown(library.subscribed, bare.subscribed, 14);
    printf("  after one notification, library's client (log off) minus bare:\n");
    PrintBreakdown(library.notified, bare.notified, 6);
    printf("  logging to a file, minus log off:\n");
    PrintBreakdown(summaries[2].subscribed, library.subscribed, 4);

    g_object_unref(g_control);
    g_control = nullptr;
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--help") == 0) {
        Usage();
        return 0;
    }
    if (!ParseOptions(argc, argv, g_options)) {
        Usage();
        return 2;
    }
    // Quiet unless asked otherwise; the footprint sets it per client.
    setenv("LUMORA_LOG_LEVEL", "none", 0);
    return g_options.footprint ? RunFootprint() : RunSoak();
}
