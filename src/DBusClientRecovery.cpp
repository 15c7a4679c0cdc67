// DBusClient: coming back after the bus daemon went away under a client in
// use.
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>

#include "DBusClientInternal.h"
#include "internal/Atomic.h"
#include "internal/Boundary.h"
#include "internal/Events.h"
#include "internal/Log.h"

using lumora::internal::AtomicStore;

namespace {

constexpr const char* kOnConnectionClosed = "OnConnectionClosed";
constexpr const char* kReConnectTimeoutCb = "ReConnectTimeoutCb";

// The connection whose "closed" signal is watched, and the handler's id.
// Guarded by the client mutex.
GDBusConnection* g_watchedConnection = nullptr;
gulong g_closedHandlerId = 0;
// Set when the bus went away under a client in use, until its subscriptions
// have been registered again on a new connection.
bool g_bRecovering = false;

}  // namespace

void DBusClientInternal::WatchConnection(DBusClient& client) {
    // The handler of a connection given up earlier goes: the object is only
    // forgotten, never released, so disconnecting from it is safe.
    if (g_watchedConnection != nullptr && g_closedHandlerId != 0)
        g_signal_handler_disconnect(g_watchedConnection, g_closedHandlerId);
    g_watchedConnection = client.m_connection;
    g_closedHandlerId = g_watchedConnection != nullptr
                            ? g_signal_connect(g_watchedConnection, "closed", G_CALLBACK(OnConnectionClosed), nullptr)
                            : 0;
    lumora::internal::ReportConnection(client.m_connection);
}

void DBusClientInternal::ForgetConnection(DBusClient& client) {
    StopListening(client);
    AtomicStore(client.m_connection, static_cast<GDBusConnection*>(nullptr));
}

bool DBusClientInternal::Recovering() { return g_bRecovering; }

void DBusClientInternal::StopRecovery() { g_bRecovering = false; }

void DBusClientInternal::FinishRecovery(DBusClient& client, const char* caller) {
    g_bRecovering = false;
    LMF_LOGE_IN(caller, "[%s] registering %zu subscription(s) again after the bus came back", ProcessName(client),
                client.m_vSubscribeList.size());
    RegisterAgain(client, Batch::kReconnected, caller);
}

// The closed connection stays in place until now, so that reads, writes,
// requests, subscriptions and removals made during the outage behave as on
// any connection that closed (a read fails with GIO's error, a request is
// answered with the error text, the table keeps what the application did).
// The new connection takes its place; the table, as the application left it,
// is registered again once the service is there: now, after a recheck, or
// on its "HELLO".
void DBusClientInternal::RecoverOn(DBusClient& client, GDBusConnection* connection) {
    const char* name = ProcessName(client);
    ForgetConnection(client);
    AtomicStore(client.m_connection, connection);
    WatchConnection(client);
    LMF_LOGE_IN(kReConnectTimeoutCb, "[%s] connected to the bus again", name);
    Listen(client);
    MarkBusConnected(client, true);
    if (client.__IsLMFServiceReady() && client.__IsServiceEnable()) {
        LMF_LOGE_IN(kReConnectTimeoutCb, "[%s] LMF service is available now ..", name);
        MarkServiceAvailable(client, true);
        FinishRecovery(client, kReConnectTimeoutCb);
        return;
    }
    LMF_LOGE_IN(kReConnectTimeoutCb, "[%s] LMF service isn't ready or available yet ..", name);
    ServiceNotFound(client);
    client.m_nRecheckCnt = 0;
    ScheduleRecheck(client);
}

// Without this, a client whose bus daemon restarts keeps a closed connection
// for good: every read fails with "The connection is closed" and nothing
// tries again. The reconnect timer of the first start brings the client back.
// Nothing else changes here: the flags, the tables and the closed connection
// stay as they are until a new connection replaces it (RecoverOn).
void DBusClientInternal::OnConnectionClosed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error,
                                            gpointer /*userData*/) {
    lumora::internal::GuardedVoid(kOnConnectionClosed, [&] {
        ContextAutoLock lock(Mutex());
        if (connection != g_watchedConnection) return;  // one given up already
        g_signal_handler_disconnect(connection, g_closedHandlerId);
        g_closedHandlerId = 0;
        g_watchedConnection = nullptr;
        DBusClient* client = DBusClient::m_pInstance;
        if (client == nullptr || client->m_connection != connection) return;
        const char* name = ProcessName(*client);
        const char* reason = error != nullptr ? error->message : remotePeerVanished ? "the bus went away" : "closed";
        // Only a client in use comes back by itself; a finalised one (or one
        // never brought up) opens a new connection on its next Initialize.
        if (!client->m_bBusConnected) {
            LMF_LOGE_IN(kOnConnectionClosed, "[%s] the bus connection closed (%s)", name, reason);
            return;
        }
        LMF_LOGE_IN(kOnConnectionClosed, "[%s] the bus connection closed (%s); reconnecting every %u s", name, reason,
                    kReconnectIntervalSeconds);
        g_bRecovering = true;
        lumora::internal::ReportServiceUnavailable("bus-closed");
        // A recheck would only ask the closed connection; the reconnection
        // starts a new one when the service is not there yet.
        CancelRecheck(*client);
        ScheduleReconnect(*client);
    });
}
