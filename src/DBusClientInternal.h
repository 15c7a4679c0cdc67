// DBusClient's own helpers: reach its private state, never exported.
#ifndef LUMORA_SRC_DBUSCLIENTINTERNAL_H
#define LUMORA_SRC_DBUSCLIENTINTERNAL_H

#include <lumora/DBusClient.h>

class DBusClientInternal {
public:
    static GMutex* Mutex() { return &DBusClient::m_clientMutex; }
    static const char* ProcessName(const DBusClient& client) { return client.m_strProcessName.c_str(); }

    // Connection and readiness.
    static GDBusConnection* OpenConnection(GError** error);
    static guint SubscribeResponseSignal(DBusClient& client);
    static void InitializeOnOpenConnection(DBusClient& client, LMF_INIT_RESULT* result);
    static void InitializeOnNewConnection(DBusClient& client, LMF_INIT_RESULT* result);
    static void ScheduleInitCallback(DBusClient& client);
    static void MarkServiceAvailable(DBusClient& client, bool available);
    static void MarkBusConnected(DBusClient& client, bool connected);

    // Losing the bus. The client watches its connection's "closed" signal:
    // when the bus goes away under a started client, the connection is
    // dropped and the reconnect timer brings the client back (listen, check
    // readiness, register the subscriptions again). Caller's lock.
    static void WatchConnection(DBusClient& client);
    // Whether the client is coming back from a lost bus and has not yet
    // registered its subscriptions again. Caller's lock.
    static bool Recovering();
    // The subscriptions and unsent requests go out again after a lost bus
    // (caller's lock); lines are logged as caller.
    static void FinishRecovery(DBusClient& client, const char* caller);
    // Forgets the recovery, for Finalize and a new connection. Caller's lock.
    static void StopRecovery();
    // Handler of the watched connection's "closed" signal (main-loop thread).
    static void OnConnectionClosed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error,
                                   gpointer userData);

    // What a reconnection or the service's "HELLO" sends again: a type-3
    // subscribe per subscription record, then every unsent request. Their log
    // lines belong to caller (SubscribeStateCheck or ReConnectTimeoutCb).
    static void ResubscribeAll(DBusClient& client, const char* caller);
    static void ResendPendingRequests(DBusClient& client, const char* caller);

    // Whether subject and input (either may be null) can go into a request
    // tuple: GVariant strings must be valid UTF-8. Logs one line as function
    // when not.
    static bool IsSendable(const DBusClient& client, const char* function, const char* subject, const char* input);

    // The connection pointer as read by operations that take no lock.
    static GDBusConnection* Connection(const DBusClient& client);
};

#endif  // LUMORA_SRC_DBUSCLIENTINTERNAL_H
