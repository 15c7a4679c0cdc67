/// @file
/// @brief DBusClient: the process's one connection to the context service.
#ifndef LUMORA_DBUSCLIENT_H
#define LUMORA_DBUSCLIENT_H

#include <gio/gio.h>
#include <lumora/lumora-c.h>
#include <lumora/lumora-export.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// One (subject, callback) subscription of the bus client; owned by its table.
struct DBusClientSubscribe {
    std::string subject;                 ///< The subscribed subject.
    LumoraSubjectCb callback = nullptr;  ///< Called once per notification of subject.
    void* userData = nullptr;            ///< Handed back to callback.
};

/// One asynchronous request. Owned by the pending-request table until it is
/// put on the bus, then by the call in flight, whose reply handler frees it.
struct DBusClientRequest {
    std::string subject;                 ///< The requested subject.
    std::string input;                   ///< The input; empty when the caller gave none.
    int32_t reqId = 0;                   ///< Its id (__GenerateSeqId()), kept when it is sent again.
    LumoraSubjectCb callback = nullptr;  ///< Called once with the answer; when null, the answer is dropped.
    bool isStatistics = false;           ///< Whether subject is one of the five statistics subjects.
    void* userData = nullptr;            ///< Handed back to callback.
    int32_t initCount = 0;               ///< The client's init count when the request was made.
};

/**
 * The process-wide bus client. Obtain it with GetInstance(); the service API
 * (LMFServiceAPI) and the object interface (LumoraAPI) share it.
 *
 * Results of the int operations: 0 success; -2 a request record could not be
 * allocated; -3 a null subject (or write input), or a text that is not UTF-8;
 * -4 the service answered "{}" (no data); -5 the bus is not connected or the
 * service is not available; -6 there is no connection, the bus call failed,
 * or the operation was refused inside a request's callback; any other
 * non-zero value is the service's own code, passed through.
 *
 * Threads: operations may be called from any thread; timers, replies and
 * signals run on the thread that iterates the global default GLib main
 * context, which the application must run, whatever thread made the call
 * (also one that pushed a thread-default context of its own). Operations marked "client mutex" hold it for their
 * whole run, blocking bus calls included. The mutex is not recursive, and an
 * asynchronous-request callback runs with it held: called from such a
 * callback, Initialize, Finalize, Read, Request, Subscribe, Unsubscribe and
 * DeleteInstance are refused at once (false, -6, or nothing done) with one
 * error line instead of waiting for ever. Subscription callbacks and the
 * start callback run with no lock held.
 *
 * Memory: a text handed to a callback is the library's and valid only during
 * the call; a text returned through a `char**` is the caller's, to free with
 * free().
 *
 * Texts: subjects and inputs must be valid UTF-8 (they travel as D-Bus
 * strings); any other text is refused as a bad argument (-3, or false).
 *
 * Losing the bus: when the bus daemon goes away under a client in use (after
 * Initialize, before Finalize), the client keeps the closed connection and its
 * state, so that operations behave as on any connection that closed: a read
 * fails with GIO's error (-6), a write is queued (0) and dropped, a request is
 * accepted and answered once with {"Status":"Error"}, and subscriptions and
 * removals change the table as usual. It tries a new connection every 2 s;
 * once connected it listens again, asks the service and registers the table,
 * as the application left it, again (at once when the service is there,
 * after a recheck every 3 s or on its "HELLO"), so callbacks resume without
 * the application doing anything. A request in flight when the bus went away
 * is answered once with {"Status":"Error"} and not sent again.
 */
class LUMORA_EXPORT DBusClient {
public:
    /// The instance, created on first use (double-checked under the client
    /// mutex). A failed allocation throws std::bad_alloc.
    static DBusClient* GetInstance();
    /// Destroys the instance, if any (client mutex; nothing is done when refused
    /// inside a request's callback). The connection is not closed and the
    /// records of the two tables are not freed (Finalize does that), but
    /// nothing that points at the instance stays behind: its timers (every
    /// pending start-callback timer included) and its subscription to the
    /// service's signal are removed. LMFServiceAPI and LumoraAPI keep pointers
    /// of their own to the instance, which this does not clear.
    static void DeleteInstance();

    /// Connects, listens for the service's signal and asks whether the service
    /// is enabled (client mutex). True, except when refused inside a request's
    /// callback (false). The outcome goes to *result (when not null):
    /// LMF_INIT_OK, LMF_INIT_CONNECTION_FAILED (a timer tries a new connection
    /// every 2 s) or LMF_INIT_SERVICE_NOT_READY (rechecked every 3 s on a fresh
    /// connection). On a connection kept open from an earlier Initialize, only
    /// the service is asked again, once. A non-null callback is stored and
    /// called once, about 1 s after the service is found ready, with a null
    /// string and userData, on the main-loop thread with no lock held. The
    /// tables are emptied first without freeing their records (Finalize frees
    /// them).
    bool Initialize(LMF_INIT_RESULT* result, LumoraInitCb callback, void* userData);
    /// Drops subscriptions (telling the service once per record while it is
    /// available, without waiting for its answers: the messages go out as a
    /// window of calls in flight), pending requests, the whitelist, the stored
    /// start callback and the timers (client mutex); answers still in flight
    /// are then dropped. Once it returns, no subscription callback runs on
    /// another thread or will start. The connection stays open for a later
    /// Initialize. True, except when refused inside a request's callback
    /// (false).
    bool Finalize();
    /// Copies name (null as "") as this process's name, used in log lines and by
    /// the whitelist. Takes no lock.
    void SetProcessName(const char* name);
    /// Whether the service is available. Takes no lock.
    bool IsAvailable();

    /// Reads the current value of subject with input, null sent as "" (client
    /// mutex; blocks up to 1 s). On 0, *output is a new string for the caller to
    /// free(). When the service answers with a code of its own, that code is
    /// returned and *output also gets a copy of the service's text, to free as
    /// well. For -3, -4 ("{}"), -5 and -6, *output is left untouched.
    int Read(const char* subject, const char* input, char** output);
    /// Queues a write of input to subject; does not wait, and the service's
    /// answer and any delivery error are dropped. Takes no lock. 0 when queued;
    /// -5 when the bus is not connected or the service not available, -3 for a
    /// null or non-UTF-8 subject or input, -6 without a connection.
    int Write(const char* subject, const char* input);
    /// Asks for subject's value without blocking (client mutex); a null input is
    /// sent as "". On 0 the callback is called once later, on the main-loop
    /// thread, with the client mutex held: with the value, with
    /// {"Status":"Error"} (a service error or the bus time-out of 25 s), or for
    /// the five statistics subjects with a StatisticsResult* whose records are
    /// freed when it returns. It is not called for an answer that arrives while
    /// the service is not available (after its "BYE" or a Finalize) or after a
    /// new Initialize; such an answer is dropped with a log line. -5 when the bus
    /// is not connected or the service not available (nothing is kept), -3 for a
    /// null or non-UTF-8 subject or input, -2 when the record cannot be
    /// allocated; -6 when refused, or without a connection (the record then
    /// stays in the pending table, to be sent on the service's "HELLO").
    int Request(const char* subject, const char* input, LumoraSubjectCb callback, void* userData);
    /// Adds (subject, callback); the service is told when the subject gets its
    /// first local subscriber while the service is available, and again after
    /// each "HELLO". True when added, or when the bus is not connected (then
    /// nothing is stored); false for a duplicate pair, whatever its userData,
    /// for a non-UTF-8 subject, when the record cannot be allocated, or when
    /// refused. The callback runs on the main-loop thread with no lock held,
    /// once per notification, in the order the pairs were added; a null callback
    /// is skipped with a line. Only the table step takes the client mutex.
    /// @exception std::logic_error subject is null (a programming error;
    /// nothing is sent or stored).
    bool Subscribe(const char* subject, LumoraSubjectCb callback, void* userData);
    /// Removes (subject, callback); the service is told when the subject loses
    /// its last local subscriber while the service is available. True when
    /// removed or the bus is not connected; false when the pair is unknown, or
    /// when refused. Only the table step takes the client mutex. Once it
    /// returns, the pair's callback is not running on another thread (a call
    /// in progress is waited for, with no library lock held) and will not be
    /// called again; from inside that callback it returns at once.
    bool Unsubscribe(const char* subject, LumoraSubjectCb callback);

    /// Adds the names of a whitelist text {"WhiteList":[...]} to the list.
    /// False (and the list unchanged) when the text is not JSON; true otherwise,
    /// also for a text without "WhiteList". The list is not cleared first.
    /// Called with the client mutex held.
    bool __SetWhiteList(const char* json);
    /// Whether this process may use internal subjects: "lumora-agent" always,
    /// otherwise only a process named in the whitelist. Takes no lock.
    bool CheckWhiteListProcess();

    /// @name Building blocks
    /// The steps of the operations above, public for the library's own units
    /// and tests. Those marked "caller's lock" expect the client mutex to be
    /// held; __RequestAsync expects texts that Request has checked (UTF-8).
    /// @{

    /// Whether the service's ready marker (/tmp/lmf_service_ready) exists. Takes
    /// no lock.
    bool __IsLMFServiceReady();
    /// Asks the service "ServiceEnable" (0.3 s time-out) and adds the whitelist
    /// it sends (__SetWhiteList). True when the service says it is enabled;
    /// false without a connection, on a failed call or on a reply of another
    /// type. Caller's lock.
    bool __IsServiceEnable();
    /// The next request id of the process: 1 up to the largest int, then 1
    /// again; never 0 or negative. Atomic; takes no lock.
    int __GenerateSeqId();
    /// Calls "RequestSync" with (pid, type, reqId, subject, input) and waits up
    /// to 1 s (caller's lock). Returns the service's code; -6 without a
    /// connection, on a failed call or on a reply of another type; -3 for a text
    /// that is not UTF-8. With a non-null output, *output gets a copy of the
    /// service's text (the caller's, to free), except that "{}" gives -4 and no
    /// copy. A null input is sent as ""; subject must not be null.
    int __RequestSync(int type, int reqId, const char* subject, const char* input, char** output);
    /// Queues "Write" with (pid, type, reqId, subject, input) without waiting for
    /// its answer; output is not used. 0 when queued, -6 without a connection,
    /// -3 for a text that is not UTF-8. Neither text may be null. Takes no lock.
    int __WriteAsync(int type, int reqId, const char* subject, const char* input, char** output = nullptr);
    /// Calls "RequestAsync" with (pid, type, reqId, subject, input) and hands
    /// pRequest to OnResponseAsync, which owns it from then on. 0 when sent; -6
    /// without a connection (pRequest is not taken). A null input is sent as "".
    /// Caller's lock.
    int __RequestAsync(int type, int reqId, const char* subject, const char* input, DBusClientRequest* pRequest);
    /// The pending (not yet sent) request of reqId, or null. Caller's lock.
    DBusClientRequest* FindRequest(int reqId);
    /// Takes the request of reqId out of the pending table without freeing it.
    /// Caller's lock.
    void EraseRequest(int reqId);
    /// Frees every pending request and empties the table. Caller's lock.
    void __DeleteAllRequests();
    /// The table step of Subscribe (takes the client mutex): adds the record,
    /// after telling the service (a type-3 "RequestSync") when the subject is new
    /// and the service available. False for a non-UTF-8 subject, a known
    /// (subject, callback), a failed allocation, or when refused; throws
    /// std::logic_error for a null subject, before anything is sent.
    bool __InsertSubscribe(const char* subject, LumoraSubjectCb callback, void* userData);
    /// The table step of Unsubscribe (takes the client mutex): frees the records
    /// of (subject, callback) and tells the service (type 4) when the subject has
    /// none left and the service is available. False when there was none, or
    /// when refused.
    bool __DeleteSubscribe(const char* subject, LumoraSubjectCb callback);
    /// The first record of subject, or null. Caller's lock.
    DBusClientSubscribe* FindSubscribe(const char* subject);
    /// The record of (subject, callback), or null. Caller's lock.
    DBusClientSubscribe* FindSubscribe(const char* subject, LumoraSubjectCb callback);
    /// Appends the records of subject to out, in table order. Always true.
    /// Caller's lock.
    bool FindSubscribesVector(const char* subject, std::vector<DBusClientSubscribe*>& out);
    /// Tells the service (type 4) once per record while it is available, as a
    /// window of calls in flight that goes on from the main loop, frees every
    /// record and empties the table. Caller's lock.
    void __DeleteAllSubscribes();
    /// Handles a signal that no record wanted (client mutex): "HELLO" marks the
    /// service available, adds the whitelist in data, schedules the start
    /// callback, subscribes every record again and then sends every pending
    /// request (the subscribe messages go out as a window of calls in flight,
    /// the next as each is answered, so that neither the main loop nor the
    /// client mutex waits for the service);
    /// "BYE" marks the service not available (records and requests wait for
    /// "HELLO"); anything else is only logged.
    void SubscribeStateCheck(const char* subject, const char* data);
    /// The "HELLO" and "BYE" step of SubscribeStateCheck (caller's lock): true
    /// with reqType 3 for "HELLO" and 4 for "BYE", after marking the service as
    /// described there; false for any other subject. subject must not be null.
    bool __GetReqIdFromServerMessage(const char* subject, const char* data, int& reqType);
    /// Decodes the payload of a statistics subject into out: count, and records
    /// allocated with calloc whose strings are strdup copies. count 0 and items
    /// null for another subject, a payload of another type, or no records; count
    /// set and items null when the allocation failed. Release with __DataFree.
    /// Takes no lock.
    void __ResponseDataParsing(const char* subject, GVariant* data, StatisticsResult& out);
    /// Frees what __ResponseDataParsing made for subject and sets out to 0 and
    /// null. Does nothing without records, or for a null or unknown subject
    /// (logged). Takes no lock.
    void __DataFree(const char* subject, StatisticsResult& out);
    /// @}

    /// @name Timer bodies
    /// Run from the default main context; true keeps the timer, false removes it.
    /// @{

    /// Calls the stored start callback with no lock held, then clears it under
    /// the client mutex. Always false.
    gboolean InitTimeoutCb();
    /// Client mutex. True while the service's ready marker is missing; then asks
    /// the service: false once it is enabled (the service is marked available and
    /// the start callback scheduled; after a lost bus, the subscriptions are
    /// registered again) or after the eleventh refusal, true otherwise.
    gboolean RecheckTimeoutCb();
    /// Client mutex. Opens a new connection: true (try again) while that fails.
    /// Once one is open, a process with subscriptions listens for the service's
    /// signal, asks the service and, when it is enabled, subscribes again and
    /// sends the pending requests; any other process keeps the connection for its
    /// next Initialize. After a lost bus (see the class), every client in use
    /// listens and asks the service, whether or not it has subscriptions, and
    /// rechecks every 3 s while the service is not ready. False then.
    gboolean ReConnectTimeoutCb();
    /// @}

    /// Handler of the service's "Response" signal (user data: the client). Hands
    /// the data to every record of the signal's subject, in table order, with no
    /// lock held (the records are copied under the client mutex first); a signal
    /// that no record wants goes to SubscribeStateCheck, and one of another shape
    /// is dropped with a line.
    static void OnSubscribe(GDBusConnection* connection, const gchar* sender, const gchar* objectPath,
                            const gchar* interfaceName, const gchar* signalName, GVariant* parameters,
                            gpointer userData);
    /// Completion handler of "RequestAsync" (user data: the DBusClientRequest).
    /// Runs under the client mutex: drops the answer without a callback when the
    /// service is not available or the client was initialised again since the
    /// request; otherwise calls the request's callback once, as Request
    /// describes. Frees the request either way.
    static void OnResponseAsync(GObject* source, GAsyncResult* result, gpointer userData);

    /// The instance, null until GetInstance() and after DeleteInstance(). Read
    /// it, do not assign it.
    static DBusClient* m_pInstance;

private:
    friend class DBusClientInternal;  // the implementation's own helpers, not exported

    DBusClient();
    ~DBusClient();
    DBusClient(const DBusClient&) = delete;
    DBusClient& operator=(const DBusClient&) = delete;

    int m_nInitCnt = 0;
    GDBusConnection* m_connection = nullptr;
    guint m_subscriberID = 0;
    std::vector<DBusClientSubscribe*> m_vSubscribeList;
    // The records of m_vSubscribeList by subject, each subject's in their
    // order in the table, so that a signal finds its subject's records
    // without comparing it with every subscribed subject. Owns nothing; it
    // changes with the table, under the client mutex.
    std::map<std::string, std::vector<DBusClientSubscribe*>, std::less<>> m_subscribeIndex;
    std::vector<DBusClientRequest*> m_vRequestList;
    guint m_nReConnectTimerId = 0;
    bool m_bServiceAvailable = false;
    bool m_bBusConnected = false;
    std::string m_strProcessName;
    LumoraInitCb m_fnInitCb = nullptr;
    void* m_pInitUserData = nullptr;
    guint m_nInitCbTimerId = 0;
    guint m_nRecheckTimerId = 0;
    int m_nRecheckCnt = 0;
    std::vector<std::string> m_vWhiteList;

    static GMutex m_clientMutex;
};

#endif  // LUMORA_DBUSCLIENT_H
