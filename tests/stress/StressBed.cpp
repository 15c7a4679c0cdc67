#include "StressBed.h"

#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "BusCalls.h"
#include "ControlContract.h"

namespace lumora::test {

namespace {

constexpr int kDefaultSeconds = 40;
constexpr int kMinSeconds = 5;
constexpr int kMaxSeconds = 60;

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

void Drop(GDBusConnection*& connection) {
    if (connection == nullptr) return;
    g_dbus_connection_close_sync(connection, nullptr, nullptr);
    g_object_unref(connection);
    connection = nullptr;
}

bool CallDaemon(GDBusConnection* connection, const char* interface, const char* method, GVariant* parameters,
                VariantPtr& reply) {
    CallResult result =
        CallMethod(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", interface, method, parameters, 5000);
    reply = result.reply;
    return result.Ok();
}

bool HasResponseRule(GVariant* rules) {
    GVariantIter iter;
    g_variant_iter_init(&iter, rules);
    const gchar* rule = nullptr;
    while (g_variant_iter_next(&iter, "&s", &rule)) {
        if (std::string(rule).find("member='Response'") != std::string::npos) return true;
    }
    return false;
}

}  // namespace

uint64_t StressSeed() {
    const char* text = getenv("LUMORA_STRESS_SEED");
    if (text != nullptr && *text != '\0') return strtoull(text, nullptr, 10);
    return static_cast<uint64_t>(g_get_real_time()) ^ (static_cast<uint64_t>(getpid()) << 32);
}

int StressSeconds() {
    const char* text = getenv("LUMORA_STRESS_SECONDS");
    int seconds = text != nullptr && *text != '\0' ? atoi(text) : kDefaultSeconds;
    if (seconds < kMinSeconds) return kMinSeconds;
    return seconds > kMaxSeconds ? kMaxSeconds : seconds;
}

StressBed::StressBed()
    : m_address("unix:path=" + m_dir.File("bus")), m_busAddress("DBUS_SYSTEM_BUS_ADDRESS", m_address) {}

StressBed::~StressBed() {
    DropOwn();
    m_sim.Stop();
    m_bus.Stop();
}

bool StressBed::ConnectOwn() {
    m_control = ConnectToBus(m_address);
    std::lock_guard<std::mutex> lock(m_feedMutex);
    m_feed = ConnectToBus(m_address);
    return m_control != nullptr && m_feed != nullptr;
}

void StressBed::DropOwn() {
    Drop(m_control);
    std::lock_guard<std::mutex> lock(m_feedMutex);
    Drop(m_feed);
}

bool StressBed::Start() { return m_bus.StartAt(m_address, false) && m_sim.Start() && ConnectOwn(); }

bool StressBed::TerminateService(int downMs) {
    m_sim.Stop();
    SleepMs(downMs);
    return m_sim.Start();
}

bool StressBed::KillService(int downMs) {
    if (m_sim.Pid() > 0) kill(m_sim.Pid(), SIGKILL);
    m_sim.Stop();  // only reaps it now
    SleepMs(downMs);
    return m_sim.Start();
}

bool StressBed::RestartThroughControl(unsigned pauseMs) {
    // Answered once the service has said "HELLO" again.
    return CallControl(m_control, lumora::sim::kCtlRestart, g_variant_new("(u)", pauseMs),
                       static_cast<int>(pauseMs) + 10000)
        .Ok();
}

bool StressBed::RestartBus(int downMs) {
    std::lock_guard<std::mutex> feedLock(m_feedMutex);
    Drop(m_feed);
    Drop(m_control);
    m_bus.Stop();
    // The service ends by itself when it loses its bus.
    if (m_sim.WaitForExit(5000) == -2) m_sim.Stop();
    SleepMs(downMs);
    if (!m_bus.StartAt(m_address, false) || !m_sim.Start()) return false;
    m_control = ConnectToBus(m_address);
    m_feed = ConnectToBus(m_address);
    return m_control != nullptr && m_feed != nullptr;
}

bool StressBed::Emit(const std::string& subject, const std::string& data) {
    return CallControl(m_control, lumora::sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), data.c_str())).Ok();
}

bool StressBed::ServiceKnows(const std::string& subject) {
    CallResult status = CallControl(m_control, lumora::sim::kCtlGetStatus);
    if (!status.Ok()) return false;
    const gchar* text = nullptr;
    g_variant_get(status.reply.get(), "(&s)", &text);
    Json::Value root;
    std::istringstream in(text);
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr)) return false;
    return root["subscriptions"][subject].size() > 0;
}

bool StressBed::LibraryListens() {
    VariantPtr all;
    if (!CallDaemon(m_control, "org.freedesktop.DBus.Debug.Stats", "GetAllMatchRules", nullptr, all)) return false;
    GVariant* byName = g_variant_get_child_value(all.get(), 0);
    GVariantIter iter;
    g_variant_iter_init(&iter, byName);
    const gchar* name = nullptr;
    GVariant* rules = nullptr;
    bool listens = false;
    while (!listens && g_variant_iter_next(&iter, "{&s@as}", &name, &rules)) {
        VariantPtr pid;
        if (HasResponseRule(rules) && CallDaemon(m_control, "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                                 g_variant_new("(s)", name), pid)) {
            guint32 owner = 0;
            g_variant_get(pid.get(), "(u)", &owner);
            listens = owner == static_cast<guint32>(getpid());
        }
        g_variant_unref(rules);
    }
    g_variant_unref(byName);
    return listens;
}

bool StressBed::Feed(const std::string& subject, const std::string& data) {
    std::lock_guard<std::mutex> lock(m_feedMutex);
    if (m_feed == nullptr) return false;
    return CallControl(m_feed, lumora::sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), data.c_str()), 2000).Ok();
}

bool StressBed::FeedEvent(const char* kind) {
    std::lock_guard<std::mutex> lock(m_feedMutex);
    if (m_feed == nullptr) return false;
    return CallControl(m_feed, lumora::sim::kCtlEmitEvent, g_variant_new("(ss)", kind, ""), 2000).Ok();
}

}  // namespace lumora::test
