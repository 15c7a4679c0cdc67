// The GObject API against lumora-sim on a private bus, watched by a bus
// monitor and a log capture. GLib's criticals and warnings end the test
// process: the API answers bad arguments with a GError, never with either.
#ifndef LUMORA_TESTS_GLIB_GLIBFIXTURE_H
#define LUMORA_TESTS_GLIB_GLIBFIXTURE_H

#include <errno.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <lumora-glib/lumora-glib.h>
#include <lumora/lumora-api.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BusCalls.h"
#include "BusMonitor.h"
#include "ControlContract.h"
#include "LogCapture.h"
#include "SimProcess.h"
#include "SimStatus.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {

/// Iterates the calling thread's thread-default main context until done()
/// holds or timeoutMs pass; whether it held.
inline bool IterateUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    GMainContext* context = g_main_context_ref_thread_default();
    gint64 end = g_get_monotonic_time() + gint64{timeoutMs} * 1000;
    bool held = done();
    while (!held && g_get_monotonic_time() < end) {
        while (g_main_context_iteration(context, FALSE)) {
        }
        held = done();
        if (!held) g_usleep(2000);
    }
    g_main_context_unref(context);
    return held;
}

/// Iterates the thread-default main context for ms, so that whatever would
/// come (and must not) has had its chance.
inline void IterateFor(int ms) {
    IterateUntil([] { return false; }, ms);
}

/// What an asynchronous read or request handed to its callback, with where
/// the callback ran.
struct AsyncOutcome {
    int calls = 0;
    char* text = nullptr;
    GVariant* variant = nullptr;
    GError* error = nullptr;
    std::thread::id thread;
    GMainContext* context = nullptr;  // the thread-default context then (not a reference)

    ~AsyncOutcome() {
        g_free(text);
        if (variant != nullptr) g_variant_unref(variant);
        g_clear_error(&error);
    }
    bool Done() const { return calls > 0; }
    void Record() {
        ++calls;
        thread = std::this_thread::get_id();
        context = g_main_context_get_thread_default();
    }
    static void OnRead(GObject* source, GAsyncResult* result, gpointer data) {
        auto* outcome = static_cast<AsyncOutcome*>(data);
        outcome->Record();
        outcome->text = lumora_client_read_finish(LUMORA_CLIENT(source), result, &outcome->error);
    }
    static void OnRequest(GObject* source, GAsyncResult* result, gpointer data) {
        auto* outcome = static_cast<AsyncOutcome*>(data);
        outcome->Record();
        outcome->variant = lumora_client_request_finish(LUMORA_CLIENT(source), result, &outcome->error);
    }
};

/// Every "changed" of a subscription, in order, with where it was emitted.
struct ChangeRecorder {
    std::vector<std::string> data;
    std::vector<std::string> valueAtEmission;  // the "value" property while "changed" runs
    int valueNotifications = 0;
    std::thread::id thread;
    GMainContext* context = nullptr;

    void Connect(LumoraSubscription* subscription) {
        g_signal_connect(subscription, "changed", G_CALLBACK(OnChanged), this);
        g_signal_connect(subscription, "notify::value", G_CALLBACK(OnValue), this);
    }
    static void OnChanged(LumoraSubscription* subscription, const char* text, gpointer self) {
        auto* recorder = static_cast<ChangeRecorder*>(self);
        recorder->data.emplace_back(text);
        char* value = lumora_subscription_dup_value(subscription);
        recorder->valueAtEmission.emplace_back(value != nullptr ? value : "(null)");
        g_free(value);
        recorder->thread = std::this_thread::get_id();
        recorder->context = g_main_context_get_thread_default();
    }
    static void OnValue(GObject*, GParamSpec*, gpointer self) { ++static_cast<ChangeRecorder*>(self)->valueNotifications; }
};

class GlibTest : public testing::Test {
protected:
    void SetUp() override {
        g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
        // Not on the sample scenario's whitelist, unless a test says so.
        program_invocation_short_name = const_cast<char*>(ProcessName());
        ASSERT_TRUE(m_bus.Start());
        m_monitor = std::make_unique<BusMonitor>(m_bus.Address());
        ASSERT_TRUE(m_monitor->Ok());
        ASSERT_TRUE(m_sim.Start());
        m_control = ConnectToBus(m_bus.Address());
        ASSERT_NE(nullptr, m_control);
    }

    void TearDown() override {
        g_clear_object(&m_client);
        m_sim.Stop();
        g_clear_object(&m_control);
    }

    virtual const char* ProcessName() { return "myapp"; }

    /// Makes the client (the process's first lumora_client_get_default), then
    /// begins the log and the monitor afresh once its start has been served.
    void Start() {
        m_client = lumora_client_get_default();
        ASSERT_NE(nullptr, m_client);
        ASSERT_TRUE(lumora_client_get_available(m_client));
        ASSERT_TRUE(m_monitor->Settle(m_control));
        m_log.Mark();
        m_monitor->Clear();
    }

    CallResult Control(const char* method, GVariant* parameters = nullptr) {
        return CallControl(m_control, method, parameters);
    }
    bool Emit(const std::string& subject, const std::string& data) {
        return Control(lumora::sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), data.c_str())).Ok();
    }
    bool SetSimValue(const std::string& subject, const std::string& data) {
        return Control(lumora::sim::kCtlSetValue, g_variant_new("(ss)", subject.c_str(), data.c_str())).Ok();
    }
    bool SetResultCode(const std::string& subject, int code) {
        return Control(lumora::sim::kCtlSetResultCode, g_variant_new("(si)", subject.c_str(), code)).Ok();
    }
    bool SetDelay(const std::string& subject, unsigned ms) {
        return Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", subject.c_str(), ms)).Ok();
    }
    std::string SimValue(const std::string& subject) { return ServiceValue(m_control, subject); }

    Json::Value SimStatus() { return SimStatusOver(m_control); }

    /// What this process sent to the service up to now (not the test's own
    /// control calls): every call that has returned is included.
    std::vector<BusMessage> LibraryCalls(const std::string& member = "") {
        m_monitor->Settle(m_control);
        std::vector<BusMessage> calls;
        std::string own = g_dbus_connection_get_unique_name(m_control);
        for (const BusMessage& call : m_monitor->Calls(member))
            if (call.sender != own) calls.push_back(call);
        return calls;
    }

    /// Subscribe (3) and unsubscribe (4) messages sent, as "3 subject".
    std::vector<std::string> SubscriptionTraffic() {
        std::vector<std::string> traffic;
        for (const BusMessage& call : LibraryCalls("RequestSync"))
            if (call.requestType == 3 || call.requestType == 4)
                traffic.push_back(std::to_string(call.requestType) + " " + call.subject);
        return traffic;
    }

    /// Log records of this process since the mark with exactly text.
    size_t OwnCount(const std::string& text) {
        size_t count = 0;
        for (const LogRecord& record : m_log.Find(text))
            if (record.pid == getpid()) ++count;
        return count;
    }

    /// Waits until the client's "available" property is as wanted.
    bool WaitForAvailable(bool available, int timeoutMs = 8000) {
        return IterateUntil([&] { return lumora_client_get_available(m_client) == available; }, timeoutMs);
    }

    TempDir m_dir;
    LogCapture m_log;
    TestBus m_bus;
    std::unique_ptr<BusMonitor> m_monitor;
    SimProcess m_sim;
    GDBusConnection* m_control = nullptr;
    LumoraClient* m_client = nullptr;
};

/// A process on the sample scenario's whitelist, for internal subjects.
class WhitelistedGlibTest : public GlibTest {
protected:
    const char* ProcessName() override { return "tv-launcher"; }
};

/// The error's code in LUMORA_CLIENT_ERROR, or -1 for another domain or none.
inline int ClientErrorCode(const GError* error) {
    return error != nullptr && error->domain == LUMORA_CLIENT_ERROR ? error->code : -1;
}

}  // namespace lumora::test

#endif  // LUMORA_TESTS_GLIB_GLIBFIXTURE_H
