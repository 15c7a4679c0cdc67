// BusMonitor: a dbus-daemon monitor connection with a recording filter.
#include "BusMonitor.h"

#include <chrono>
#include <cstdio>

#include "BusCalls.h"
#include "internal/HandOff.h"

namespace lumora::test {

namespace {

constexpr const char* kService = "org.verdin.tv.lumora2";
constexpr const char* kInterface = "org.verdin.tv.lumora.interface2";
// Subjects of the monitor's own settling calls.
constexpr const char* kSettlePrefix = "Lumora/Test/Settle/";

bool IsSettleCall(const BusMessage& message) { return message.subject.rfind(kSettlePrefix, 0) == 0; }

std::string TypeName(GDBusMessageType type) {
    switch (type) {
        case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
            return "method_call";
        case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
            return "method_return";
        case G_DBUS_MESSAGE_TYPE_ERROR:
            return "error";
        case G_DBUS_MESSAGE_TYPE_SIGNAL:
            return "signal";
        default:
            return "invalid";
    }
}

std::string OrEmpty(const char* text) { return text != nullptr ? text : ""; }

BusMessage Describe(GDBusMessage* message) {
    BusMessage seen;
    seen.type = TypeName(g_dbus_message_get_message_type(message));
    seen.sender = OrEmpty(g_dbus_message_get_sender(message));
    seen.destination = OrEmpty(g_dbus_message_get_destination(message));
    seen.member = OrEmpty(g_dbus_message_get_member(message));
    seen.signature = OrEmpty(g_dbus_message_get_signature(message));
    seen.errorName = OrEmpty(g_dbus_message_get_error_name(message));
    GVariant* body = g_dbus_message_get_body(message);
    if (body != nullptr) {
        seen.body = PrintVariant(body, true);
        if (g_variant_is_of_type(body, G_VARIANT_TYPE("(iiiss)"))) {
            const gchar *subject = nullptr, *input = nullptr;
            g_variant_get(body, "(iii&s&s)", &seen.pid, &seen.requestType, &seen.requestId, &subject, &input);
            seen.subject = subject;
            seen.input = input;
        }
    }
    return seen;
}

}  // namespace

BusMonitor::BusMonitor(const std::string& address) {
    m_connection = ConnectToBus(address);
    if (m_connection == nullptr) return;
    // The filter runs on GDBus's worker thread, which may be running already
    // (another connection of the process started it): the members built so
    // far reach it through GLib.
    internal::HandOffSend(this);
    g_dbus_connection_add_filter(m_connection, Filter, this, nullptr);
    std::string toService = std::string("type='method_call',destination='") + kService + "'";
    std::string signals = std::string("type='signal',interface='") + kInterface + "'";
    // A client's signal subscriptions show as its AddMatch and RemoveMatch
    // calls to the bus.
    const gchar* rules[] = {toService.c_str(),
                            signals.c_str(),
                            "type='error'",
                            "type='method_call',destination='org.freedesktop.DBus',member='AddMatch'",
                            "type='method_call',destination='org.freedesktop.DBus',member='RemoveMatch'",
                            nullptr};
    CallResult monitoring =
        CallMethod(m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
                   "BecomeMonitor", g_variant_new("(^asu)", rules, 0u));
    m_monitoring = monitoring.Ok();
    if (!monitoring.Ok()) {
        fprintf(stderr, "monitor: %s\n", monitoring.Print().c_str());
        g_object_unref(m_connection);
        m_connection = nullptr;
    }
}

BusMonitor::~BusMonitor() {
    if (m_connection != nullptr) {
        g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
        g_object_unref(m_connection);
    }
    // Orders the filter's last run on GDBus's thread before the destruction.
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.clear();
}

// Runs on GDBus's worker thread. Calls, signals and errors are consumed here:
// a monitor must never answer, and GIO would answer method calls it does not
// know with an error. Method returns pass, among them the one to BecomeMonitor
// (which comes before any monitored message).
GDBusMessage* BusMonitor::Filter(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer self) {
    GDBusMessageType type = g_dbus_message_get_message_type(message);
    if (!incoming || type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || type == G_DBUS_MESSAGE_TYPE_INVALID) return message;
    internal::HandOffReceive(self);
    auto* monitor = static_cast<BusMonitor*>(self);
    // Held for every path from here, so that the destructor's lock orders
    // this run before the members go.
    std::lock_guard<std::mutex> lock(monitor->m_mutex);
    // A refused BecomeMonitor must reach its caller.
    if (type == G_DBUS_MESSAGE_TYPE_ERROR && !monitor->m_monitoring.load()) return message;
    BusMessage seen = Describe(message);
    // The bus's own NameAcquired/NameLost to the monitor are not traffic.
    if (seen.sender != "org.freedesktop.DBus") {
        monitor->m_messages.push_back(seen);
        monitor->m_changed.notify_all();
    }
    g_object_unref(message);
    return nullptr;
}

std::vector<BusMessage> BusMonitor::Calls(const std::string& member) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<BusMessage> calls;
    for (const BusMessage& m : m_messages) {
        if (m.type == "method_call" && m.destination == kService && !IsSettleCall(m) &&
            (member.empty() || m.member == member))
            calls.push_back(m);
    }
    return calls;
}

std::vector<BusMessage> BusMonitor::MatchRuleCalls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<BusMessage> calls;
    for (const BusMessage& m : m_messages) {
        if (m.type == "method_call" && m.destination == "org.freedesktop.DBus") calls.push_back(m);
    }
    return calls;
}

std::vector<BusMessage> BusMonitor::Signals() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<BusMessage> signals;
    for (const BusMessage& m : m_messages) {
        if (m.type == "signal") signals.push_back(m);
    }
    return signals;
}

bool BusMonitor::WaitForCalls(size_t count, int timeoutMs, const std::string& member) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, deadline, [&] {
        size_t n = 0;
        for (const BusMessage& m : m_messages) {
            if (m.type == "method_call" && m.destination == kService && !IsSettleCall(m) &&
                (member.empty() || m.member == member))
                ++n;
        }
        return n >= count;
    });
}

std::vector<BusMessage> BusMonitor::Messages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

bool BusMonitor::Settle(GDBusConnection* client, int timeoutMs) {
    std::string subject = kSettlePrefix + std::to_string(++m_settles);
    // A read of a subject without a value, not awaited: a service that holds
    // its calls must not hold this one's caller, and only the bus's order of
    // the call matters.
    g_dbus_connection_call(client, kService, "/org/verdin/tv/lumora2", kInterface, "RequestSync",
                           g_variant_new("(iiiss)", 0, 1, 0, subject.c_str(), ""), nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs, nullptr, nullptr, nullptr);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, deadline, [&] {
        for (const BusMessage& m : m_messages) {
            if (m.subject == subject) return true;
        }
        return false;
    });
}

std::string BusMonitor::LastSettleSubject() const { return kSettlePrefix + std::to_string(m_settles); }

void BusMonitor::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.clear();
}

}  // namespace lumora::test
