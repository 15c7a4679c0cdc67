// lumora: noticing that the context service has started again.
#include "RestartWatch.h"

#include <lumora/lumora-api.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "Cli.h"
#include "internal/ServiceContract.h"

namespace lumora::cli {

namespace {

namespace contract = lumora::contract;

constexpr guint kPollMs = 50;
constexpr gint64 kPatienceSeconds = 10;

}  // namespace

RestartWatch::RestartWatch(std::string probeSubject, std::function<void()> onRestart)
    : m_probeSubject(std::move(probeSubject)), m_onRestart(std::move(onRestart)) {}

RestartWatch::~RestartWatch() {
    if (m_poll != 0) g_source_remove(m_poll);
    if (m_restart != 0) g_source_remove(m_restart);
    if (m_subscription != 0) g_dbus_connection_signal_unsubscribe(m_bus, m_subscription);
    if (m_bus != nullptr) g_object_unref(m_bus);
}

bool RestartWatch::Start() {
    GError* error = nullptr;
    m_bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (m_bus == nullptr) {
        Fail(std::string("cannot watch for restarts of the context service: ") + error->message);
        g_error_free(error);
        return false;
    }
    // By default GIO ends the process when the shared connection closes; the
    // library outlives a lost bus, and so does this command.
    g_dbus_connection_set_exit_on_close(m_bus, FALSE);
    m_subscription = g_dbus_connection_signal_subscribe(m_bus, nullptr, contract::kInterface, contract::kSignalResponse,
                                                        contract::kObjectPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                        OnResponse, this, nullptr);
    // The match rule goes to the bus without an answer; the bus answers this
    // call only after it, so no HELLO from here on is missed.
    GVariant* reply =
        g_dbus_connection_call_sync(m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply == nullptr) {
        Fail(std::string("cannot watch for restarts of the context service: ") + error->message);
        g_error_free(error);
        return false;
    }
    g_variant_unref(reply);
    return true;
}

void RestartWatch::OnResponse(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                              GVariant* parameters, gpointer self) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE(contract::kResponseSignal))) return;
    const gchar* subject = nullptr;
    g_variant_get(parameters, "(i&s&s)", nullptr, &subject, nullptr);
    if (strcmp(subject, contract::kHello) == 0) static_cast<RestartWatch*>(self)->OnHello();
}

void RestartWatch::OnHello() {
    m_deadline = g_get_monotonic_time() + kPatienceSeconds * G_USEC_PER_SEC;
    if (m_poll != 0) return;  // already waiting; the new deadline applies
    if (LibraryCaughtUp()) {
        ScheduleRestart();
    } else {
        m_poll = g_timeout_add(kPollMs, OnPoll, this);
    }
}

bool RestartWatch::LibraryCaughtUp() {
    char* text = nullptr;
    int code = LMFServiceAPI::m_pDbusClient->Read(m_probeSubject.c_str(), nullptr, &text);
    free(text);
    // -5 is also a code the service itself may answer with; only while the
    // library counts the service as gone was the read refused without a call.
    return code != -5 || LMFServiceAPI::IsAvailable();
}

gboolean RestartWatch::OnPoll(gpointer self) {
    auto* watch = static_cast<RestartWatch*>(self);
    if (watch->LibraryCaughtUp()) {
        watch->m_poll = 0;
        watch->ScheduleRestart();
        return G_SOURCE_REMOVE;
    }
    if (g_get_monotonic_time() < watch->m_deadline) return G_SOURCE_CONTINUE;
    watch->m_poll = 0;
    Warn("the library did not take up the restart of the context service within " + std::to_string(kPatienceSeconds) +
         " s; current values are not printed again");
    return G_SOURCE_REMOVE;
}

void RestartWatch::ScheduleRestart() {
    if (m_restart == 0) m_restart = g_idle_add_full(G_PRIORITY_LOW, OnCaughtUp, this, nullptr);
}

gboolean RestartWatch::OnCaughtUp(gpointer self) {
    auto* watch = static_cast<RestartWatch*>(self);
    watch->m_restart = 0;
    watch->m_onRestart();
    return G_SOURCE_REMOVE;
}

}  // namespace lumora::cli
