// What every Google Benchmark program of the library starts from: a private
// bus, lumora-sim, the library started against it and a raw GDBus
// connection of its own beside it; and the library's log, switched between
// runs.
#ifndef LUMORA_BENCH_BENCHSERVICE_H
#define LUMORA_BENCH_BENCHSERVICE_H

#include <benchmark/benchmark.h>
#include <gio/gio.h>
#include <lumora/lumora-api.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "BusCalls.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::bench {

enum class Logging { kOff = 0, kToFile = 1, kErrorsToFile = 2 };

/// Points the library's log at logFile (afresh, so that it never grows large)
/// or turns it off. The log looks its settings up per record, so this takes
/// effect at once. Returns a label for the run.
inline const char* SetLogging(Logging mode, const char* logFile) {
    if (mode == Logging::kOff) {
        setenv("LUMORA_LOG_LEVEL", "none", 1);
        return "logging off";
    }
    setenv("LUMORA_LOG_FILE", logFile, 1);
    setenv("LUMORA_LOG_LEVEL", mode == Logging::kToFile ? "debug" : "error", 1);
    if (truncate(logFile, 0) != 0 && errno != ENOENT) perror(logFile);
    return mode == Logging::kToFile ? "logging to a file" : "logging errors to a file";
}

class BenchService {
public:
    explicit BenchService(const char* logFile) : m_logFile(logFile) {
        // The simulator and anything else started later inherit this: they
        // stay quiet in every variant.
        setenv("LUMORA_LOG_LEVEL", "none", 1);
    }
    ~BenchService() {
        if (m_started) Lumora_FiniService();
        if (m_raw != nullptr) g_object_unref(m_raw);
        unlink(m_logFile);
    }
    BenchService(const BenchService&) = delete;
    BenchService& operator=(const BenchService&) = delete;

    /// False, with a line on stderr, when the bus, lumora-sim or the library
    /// did not come up.
    bool Start(const std::string& busConfig = lumora::test::PrivateBusConfig()) {
        if (!m_bus.Start(true, busConfig) || !m_sim.Start()) {
            fprintf(stderr, "cannot start the private bus and lumora-sim\n");
            return false;
        }
        m_raw = lumora::test::ConnectToBus(m_bus.Address());
        m_started = Lumora_InitService();
        if (m_raw == nullptr || !m_started || !LMFServiceAPI::IsAvailable()) {
            fprintf(stderr, "the service is not available\n");
            return false;
        }
        return true;
    }

    /// A private connection of the benchmark's own, for the raw baselines.
    GDBusConnection* Raw() const { return m_raw; }
    const std::string& Address() const { return m_bus.Address(); }

private:
    const char* m_logFile;
    lumora::test::TestBus m_bus;
    lumora::test::SimProcess m_sim;
    GDBusConnection* m_raw = nullptr;
    bool m_started = false;
};

/// What an application would write without the library on the answer of a
/// "RequestAsync": finish the call, check the reply's shape, unpack the value
/// and keep a copy of the text. False when it was not a value.
inline bool TakeRawAnswer(GObject* source, GAsyncResult* result) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    bool ok = false;
    if (reply != nullptr) {
        if (g_variant_is_of_type(reply, G_VARIANT_TYPE("(isv)"))) {
            gint32 code = 0;
            const gchar* subject = nullptr;
            GVariant* payload = nullptr;
            g_variant_get(reply, "(i&sv)", &code, &subject, &payload);
            if (code == 0 && g_variant_is_of_type(payload, G_VARIANT_TYPE("(s)"))) {
                const gchar* text = nullptr;
                g_variant_get(payload, "(&s)", &text);
                char* copy = strdup(text);
                benchmark::DoNotOptimize(copy);
                free(copy);
                ok = true;
            }
            g_variant_unref(payload);
        }
        g_variant_unref(reply);
    } else {
        g_error_free(error);
    }
    return ok;
}

/// The project's private-bus configuration, written into dir, with room for
/// replies calls awaiting a reply per connection; "" when it cannot be read.
inline std::string BusConfigWithRoomFor(const lumora::test::TempDir& dir, int replies) {
    std::ifstream in(lumora::test::PrivateBusConfig());
    std::stringstream text;
    text << in.rdbuf();
    std::string config = text.str();
    size_t end = config.rfind("</busconfig>");
    if (end == std::string::npos) return {};
    config.insert(end, "  <limit name=\"max_replies_per_connection\">" + std::to_string(replies) + "</limit>\n");
    return dir.Write("bus.conf", config);
}

inline void RunBenchmarks(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}

}  // namespace lumora::bench

#endif  // LUMORA_BENCH_BENCHSERVICE_H
