#include "BusCalls.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace lumora::test {

VariantPtr AdoptVariant(GVariant* value) {
    if (value == nullptr) return nullptr;
    return VariantPtr(g_variant_ref_sink(value), g_variant_unref);
}

GDBusConnection* ConnectToBus(const std::string& address) {
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (connection == nullptr) {
        fprintf(stderr, "cannot connect to %s: %s\n", address.c_str(), error->message);
        g_error_free(error);
    }
    return connection;
}

GDBusConnection* SharedSystemBusKeptAlive() {
    GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (shared != nullptr) g_dbus_connection_set_exit_on_close(shared, FALSE);
    return shared;
}

bool NameHasOwner(GDBusConnection* connection, const char* name) {
    CallResult result = CallMethod(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "NameHasOwner", g_variant_new("(s)", name), 2000);
    gboolean owned = FALSE;
    if (result.Ok()) g_variant_get(result.reply.get(), "(b)", &owned);
    return owned != FALSE;
}

std::string PrintVariant(GVariant* value, bool typed) {
    gchar* text = g_variant_print(value, typed ? TRUE : FALSE);
    std::string printed = text;
    g_free(text);
    return printed;
}

std::string CallResult::Print() const {
    if (reply == nullptr) return errorName + ": " + errorMessage;
    return PrintVariant(reply.get(), true);
}

CallResult CallMethod(GDBusConnection* connection, const char* destination, const char* path, const char* interface,
                      const char* method, GVariant* parameters, int timeoutMs) {
    CallResult result;
    GError* error = nullptr;
    result.reply =
        AdoptVariant(g_dbus_connection_call_sync(connection, destination, path, interface, method, parameters, nullptr,
                                                 G_DBUS_CALL_FLAGS_NONE, timeoutMs, nullptr, &error));
    if (error != nullptr) {
        gchar* name = g_dbus_error_get_remote_error(error);
        result.errorName = name != nullptr ? name : "";
        g_free(name);
        g_dbus_error_strip_remote_error(error);
        result.errorMessage = error->message;
        g_error_free(error);
    }
    return result;
}

SignalRecorder::SignalRecorder(const std::string& address, const char* sender, const char* interface,
                               const char* member, const char* path) {
    m_thread.Invoke([&] {
        m_connection = ConnectToBus(address);
        if (m_connection == nullptr) return;
        m_subscription = g_dbus_connection_signal_subscribe(m_connection, sender, interface, member, path, nullptr,
                                                            G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, this, nullptr);
    });
    // A round trip after AddMatch: the daemon handles both in order, so the
    // rule is active once the answer is back.
    if (m_connection != nullptr) NameHasOwner(m_connection, "org.freedesktop.DBus");
}

SignalRecorder::~SignalRecorder() {
    m_thread.Invoke([&] {
        if (m_connection == nullptr) return;
        g_dbus_connection_signal_unsubscribe(m_connection, m_subscription);
        g_object_unref(m_connection);
    });
    m_thread.Stop();
}

std::string SignalRecorder::UniqueName() const {
    return m_connection != nullptr ? g_dbus_connection_get_unique_name(m_connection) : "";
}

void SignalRecorder::OnSignal(GDBusConnection*, const gchar* sender, const gchar* path, const gchar*,
                              const gchar* member, GVariant* parameters, gpointer self) {
    auto* recorder = static_cast<SignalRecorder*>(self);
    std::lock_guard<std::mutex> lock(recorder->m_mutex);
    recorder->m_signals.push_back(
        {sender != nullptr ? sender : "", path, member, AdoptVariant(g_variant_ref(parameters))});
}

std::vector<ReceivedSignal> SignalRecorder::Signals() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_signals;
}

bool SignalRecorder::WaitForCount(size_t count, int timeoutMs) const {
    return WaitUntil([&] { return Signals().size() >= count; }, timeoutMs);
}

}  // namespace lumora::test
