// DBusClient's own helpers: reach its private state, never exported.
#ifndef LUMORA_SRC_DBUSCLIENTINTERNAL_H
#define LUMORA_SRC_DBUSCLIENTINTERNAL_H

#include <lumora/DBusClient.h>

class DBusClientInternal {
public:
    static constexpr guint kReconnectIntervalSeconds = 2;

    static GMutex* Mutex() { return &DBusClient::m_clientMutex; }
    static const char* ProcessName(const DBusClient& client) { return client.m_strProcessName.c_str(); }

    // Connection and readiness.
    static GDBusConnection* OpenConnection(GError** error);
    static void InitializeOnOpenConnection(DBusClient& client, LMF_INIT_RESULT* result);
    static void InitializeOnNewConnection(DBusClient& client, LMF_INIT_RESULT* result);
    static void ScheduleInitCallback(DBusClient& client);
    // The 2 s reconnect timer and the 3 s readiness recheck, each replacing
    // a pending one. Caller's lock.
    static void ScheduleReconnect(DBusClient& client);
    static void ScheduleRecheck(DBusClient& client);
    static void CancelRecheck(DBusClient& client);
    static void MarkServiceAvailable(DBusClient& client, bool available);
    // The service found ready (reason "ready" or "reconnected"), or not:
    // marked, and reported to the availability callbacks. Caller's lock.
    static void ServiceFound(DBusClient& client, const char* reason);
    static void ServiceNotFound(DBusClient& client);
    static void MarkBusConnected(DBusClient& client, bool connected);
    // Drops a closed connection: it is forgotten, never released (GIO may
    // still deliver its last callbacks, and Write may hold the pointer), and
    // its "Response" subscription goes with it. Caller's lock.
    static void ForgetConnection(DBusClient& client);

    // The "Response" signal subscription (m_subscriberID) has a small lock of
    // its own that is never held across a bus call: Subscribe and Unsubscribe
    // test and change it without the client mutex, so that they never wait
    // behind a read in flight. Taken after the client mutex when both are.
    static GMutex* SignalMutex();
    // Listens for "Response" on the current connection unless the client
    // listens already; the new subscription's id, or 0 when nothing was done.
    static guint Listen(DBusClient& client);
    // Listens as Listen does, but only while the subscription table is empty
    // (Subscribe's first record).
    static void ListenBeforeFirstSubscription(DBusClient& client);
    // Stops listening, or only once the table is empty (Unsubscribe's last
    // record).
    static void StopListening(DBusClient& client);
    static void StopListeningAfterLastSubscription(DBusClient& client);
    // The number of subscription records, for the steps above that run
    // without the client mutex; refreshed by every change of the table under
    // that mutex.
    static void CountSubscriptions(const DBusClient& client);

    // Losing the bus. The client watches its connection's "closed" signal:
    // when the bus goes away under a client in use, the closed connection
    // stays in place, so that every operation behaves as on any connection
    // that closed, until the reconnect timer has a new one; the new one then
    // takes its place, and the client listens again, asks the service and
    // registers its subscriptions again. Caller's lock.
    static void WatchConnection(DBusClient& client);
    // Whether the client is coming back from a lost bus and has not yet
    // registered its subscriptions again. Caller's lock.
    static bool Recovering();
    // The subscriptions and unsent requests go out again after a lost bus
    // (caller's lock); lines are logged as caller.
    static void FinishRecovery(DBusClient& client, const char* caller);
    // Forgets the recovery, for Finalize and a new connection. Caller's lock.
    static void StopRecovery();
    // The reconnect timer's step after a lost bus: connection replaces the
    // closed one, then the client listens and asks the service. Caller's lock.
    static void RecoverOn(DBusClient& client, GDBusConnection* connection);
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
