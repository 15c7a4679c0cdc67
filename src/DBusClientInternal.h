// DBusClient's own helpers: reach its private state, never exported.
#ifndef LUMORA_SRC_DBUSCLIENTINTERNAL_H
#define LUMORA_SRC_DBUSCLIENTINTERNAL_H

#include <lumora/DBusClient.h>

#include <string>

class DBusClientInternal {
public:
    static constexpr guint kReconnectIntervalSeconds = 2;

    static GMutex* Mutex() { return &DBusClient::m_clientMutex; }
    static const char* ProcessName(const DBusClient& client) { return client.m_strProcessName.c_str(); }

    // Connection and readiness.
    static GDBusConnection* OpenConnection(GError** error);
    static void InitializeOnOpenConnection(DBusClient& client, LMF_INIT_RESULT* result);
    static void InitializeOnNewConnection(DBusClient& client, LMF_INIT_RESULT* result);
    // Every 1 s start-callback timer is remembered until it fires, including
    // one whose id the next replaced (a second Initialize keeps the first
    // one's timer), so that DeleteInstance can remove them all. Caller's lock.
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
    static void StopListening(DBusClient& client);
    // The same two, with the signal mutex held.
    static guint ListenLocked(DBusClient& client);
    static void StopListeningLocked(DBusClient& client);
    // Whether the client listens is decided under the signal mutex after
    // every change of the table, so that it follows the table whatever the
    // threads' interleaving: a Subscribe announces itself before its table
    // step (and listens), and an Unsubscribe stops listening only when the
    // table is empty, no Subscribe is under way and no availability callback
    // wants the service's "HELLO" and "BYE".
    static void BeginSubscribing(DBusClient& client);
    static void EndSubscribing(DBusClient& client);
    static void StopListeningAfterLastSubscription(DBusClient& client);
    // Whether subject has a record in the table, from the table's index.
    // Caller's lock.
    static bool HasSubscription(const DBusClient& client, const std::string& subject);
    // The number of subscription records, for the steps above that run
    // without the client mutex; refreshed by every change of the table under
    // that mutex.
    static void CountSubscriptions(const DBusClient& client);
    // Unsubscribe without the wait for a running callback of the pair: the
    // service API calls it with its own mutex held, and waits afterwards.
    static bool UnsubscribeRecord(DBusClient& client, const char* subject, LumoraSubjectCb callback);
    // Finalize without that wait, for the same reason.
    static bool FinalizeRecords(DBusClient& client);

    // The availability callbacks and the subscriptions with the current value
    // need the service's news even where the bus client alone would not
    // listen: after a stop and start of the library, and after the last
    // Unsubscribe. Called when one is added (takes the client mutex): listens,
    // and when the service is not available starts the 3 s check, which then
    // goes on until the service answers. Does nothing before the client is
    // in use.
    static void WatchForEvents(DBusClient& client);
    // The same, with the client mutex held.
    static void WatchForEventsLocked(DBusClient& client);

    // ---- the whole table, sent as a window of calls in flight ----------------
    // What a batch is for: a return of the service, told to the availability
    // callbacks with its reason once every message was answered, or the
    // unsubscriptions of Finalize.
    enum class Batch { kHello, kReconnected, kReady, kFinalize };
    // A type-3 "RequestSync" per record, in table order, then (once all went
    // out) the unsent requests; lines are logged as caller. Replaces any
    // return still under way. Caller's lock.
    static void RegisterAgain(DBusClient& client, Batch batch, const char* caller);
    // A type-4 per record, for Finalize. Caller's lock.
    static void QueueUnsubscribeAll(DBusClient& client);
    // Drops the queued unsubscriptions of subject, which is subscribed again
    // now: they would reach the service after the new subscription. Caller's
    // lock.
    static void DropQueuedUnsubscribe(const std::string& subject);
    // Forgets a return under way (the service left again, Finalize, a new
    // start). Caller's lock.
    static void CancelReturns();
    // Forgets everything queued (DeleteInstance). Caller's lock.
    static void ClearRegistrations();
    // Calls of the batches in flight, for tests. Caller's lock.
    static size_t RegistrationsInFlight();
    // Answer of one of those calls (main-loop thread).
    static void OnRegistrationAnswer(GObject* source, GAsyncResult* result, gpointer userData);

    // Whether the service is to be registered again once a check finds it:
    // it was found away while the application uses the events features, so
    // nothing else (a "HELLO", a reconnection) may come to do it. Caller's
    // lock.
    static bool& RegistrationOwed();

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

    // Every unsent request, sent again after the subscriptions of a return
    // of the service; lines belong to caller. Caller's lock.
    static void ResendPendingRequests(DBusClient& client, const char* caller);

    // Whether subject and input (either may be null) can go into a request
    // tuple: GVariant strings must be valid UTF-8. Logs one line as function
    // when not.
    static bool IsSendable(const DBusClient& client, const char* function, const char* subject, const char* input);

    // The connection pointer as read by operations that take no lock.
    static GDBusConnection* Connection(const DBusClient& client);
};

#endif  // LUMORA_SRC_DBUSCLIENTINTERNAL_H
